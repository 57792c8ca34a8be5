// SPDX-License-Identifier: GPL-2.0-only
// snbf metrics: what a monitoring system collects.
#include "metrics.h"

#include <fmt/format.h>

#include "failure.h"
#include "files.h"
#include "looking.h"

namespace snbf {

namespace {

constexpr unsigned kForAll = 0644;  // the collector is another user

struct Options {
  std::string file;
};

int metrics(const Options& options) {
  const LoadedDriver driver = loaded_driver();
  const auto nodes = driver.loaded ? look_at_all(Driver()) : std::vector<NodeFacts>{};
  const std::string text = metrics_text(tool_version(), driver, nodes);
  if (options.file.empty()) {
    fmt::print("{}", text);
  } else {
    replace_file(options.file, text, kForAll);
  }
  return kDone;
}

}  // namespace

void add_metrics(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "metrics", "Print metrics of all nodes and snaps for Prometheus",
      "Examples:\n  snbf metrics\n"
      "  snbf metrics --output /var/lib/prometheus/node-exporter/snbf.prom\n"
      "A driver that is not loaded is an answer, not a failure: snbf_up is 0, and so is the "
      "status.\nAfter any other failure the file is as it was.",
      options, metrics);
  verb->add_option("--output", options->file,
                   "Write them into this file, which a reader finds old or new, never in part")
      ->type_name("FILE");
}

}  // namespace snbf
