// SPDX-License-Identifier: GPL-2.0-only
// snbf version.
#include <fmt/format.h>

#include <fstream>

#include "command.h"
#include "failure.h"
#include "output.h"

namespace snbf {

namespace {

constexpr const char* kVersion = "0.1.0";

struct Options {
  bool json = false;
};

int version(const Options& options) {
  std::ifstream file("/sys/module/snbf/version");
  std::string driver;
  std::getline(file, driver);
  const bool loaded = std::ifstream("/proc/snbf/blk_major").good();
  const std::string shown = !loaded ? "not loaded" : driver.empty() ? "loaded" : driver;
  if (options.json) {
    print_json({{"tool", kVersion}, {"driver", shown}, {"driver_loaded", loaded}});
  } else {
    fmt::print("snbf {}\ndriver {}\n", kVersion, shown);
  }
  return kDone;
}

}  // namespace

void add_version(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(app, chosen, "version", "Show the versions of the tool and the driver",
                            "Example:\n  snbf version", options, version);
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
