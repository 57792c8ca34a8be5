// SPDX-License-Identifier: GPL-2.0-only
// snbf version.
#include <fmt/format.h>

#include "command.h"
#include "failure.h"
#include "output.h"
#include "version.h"

namespace snbf {

namespace {

struct Options {
  bool json = false;
};

int version(const Options& options) {
  const LoadedDriver driver = loaded_driver();
  if (options.json) {
    print_json({{"tool", tool_version()},
                {"driver", driver_text(driver)},
                {"driver_loaded", driver.loaded}});
  } else {
    fmt::print("{}\n", version_text());
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
