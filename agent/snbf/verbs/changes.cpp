// SPDX-License-Identifier: GPL-2.0-only
// snbf changes: what changed, and where.
#include <fmt/format.h>

#include "command.h"
#include "driver.h"
#include "failure.h"
#include "maps.h"
#include "output.h"
#include "sizes.h"

namespace snbf {

namespace {

constexpr size_t kStripWidth = 78;  // and a bracket at either end

struct Options {
  std::string node;
  std::string bitmap = "incr";
  std::string as = "text";
  bool json = false;
  bool runs = false;
};

void print_text(const snbf_info& node, const Extents& extents, const Options& options) {
  const auto runs = extents.runs();
  const double percent = 100.0 * static_cast<double>(extents.covered_bytes()) /
                         static_cast<double>(extents.dev_size());
  fmt::print("{}: {} of {} changed since the last {} ({:.1f} %), {} of {} extents in {} runs\n",
             node.name, show_size(extents.covered_bytes()), show_size(extents.dev_size()),
             options.bitmap == "incr" ? "backup" : "full backup", percent, extents.count(),
             extents.extent_cnt(), runs.size());
  fmt::print("[{}]\n", strip(extents, kStripWidth, terminal_out()));
  if (!options.runs) return;
  for (const Run& run : runs) {
    const ByteRange range = extents.range_of(run);
    fmt::print("{:>16} {:>14}\n", range.offset, range.length);
  }
}

void print_changes_json(const snbf_info& node, const Extents& extents, const Options& options) {
  Json runs = Json::array();
  for (const Run& run : extents.runs()) {
    const ByteRange range = extents.range_of(run);
    runs.push_back({{"offset", range.offset}, {"length", range.length}});
  }
  print_json({{"name", node.name},
              {"bitmap", options.bitmap},
              {"size", extents.dev_size()},
              {"extent_size", extents.extent_size()},
              {"extent_count", extents.extent_cnt()},
              {"changed_extents", extents.count()},
              {"changed_bytes", extents.covered_bytes()},
              {"runs", runs}});
}

// Every byte of the device, in pieces that are changed or not.
template <class Visit>
void each_piece(const Extents& extents, Visit&& visit) {
  uint64_t at = 0;
  for (const Run& run : extents.runs()) {
    const ByteRange range = extents.range_of(run);
    if (range.offset > at) visit(at, range.offset - at, false);
    visit(range.offset, range.length, true);
    at = range.offset + range.length;
  }
  if (at < extents.dev_size()) visit(at, extents.dev_size() - at, false);
}

void print_nbdinfo(const Extents& extents) {
  each_piece(extents, [](uint64_t offset, uint64_t length, bool changed) {
    fmt::print("{:>10}  {:>10}  {:>3}  {}\n", offset, length, changed ? 1 : 0,
               changed ? "dirty" : "clean");
  });
}

void print_qemu(const Extents& extents) {
  bool first = true;
  each_piece(extents, [&first](uint64_t offset, uint64_t length, bool changed) {
    fmt::print(
        "{}{{ \"start\": {}, \"length\": {}, \"depth\": 0, \"present\": true, \"zero\": false, "
        "\"data\": {}, \"offset\": {}}}",
        first ? "[" : ",\n", offset, length, changed, offset);
    first = false;
  });
  fmt::print("]\n");
}

int changes(const Options& options) {
  const uint32_t type = parse_bitmap(options.bitmap);
  const Driver driver;
  const snbf_info node = driver.find(options.node);
  const Extents extents = driver.get(node, type);
  if (options.json || options.as == "json") {
    print_changes_json(node, extents, options);
  } else if (options.as == "nbdinfo") {
    print_nbdinfo(extents);
  } else if (options.as == "qemu") {
    print_qemu(extents);
  } else if (options.as == "svg") {
    fmt::print("{}", hilbert_svg(extents, node.name));
  } else {
    print_text(node, extents, options);
  }
  return kDone;
}

}  // namespace

void add_changes(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "changes", "Show what has changed, and where",
      "Examples:\n  snbf changes data\n  snbf changes data --bitmap diff --as svg > changes.svg\n"
      "The forms: text, a line of totals and a strip from the device's start to its end;\n"
      "json; nbdinfo, as `nbdinfo --map` prints it; qemu, as `qemu-img map --output=json`\n"
      "does (data: true where it changed); svg, a drawing along a Hilbert curve.",
      options, changes);
  verb->add_option("node", options->node, "Name, minor, device file or partition")->required();
  verb->add_option("--bitmap", options->bitmap,
                   "incr: since the last backup; diff: since the last full one")
      ->check(CLI::IsMember({"incr", "diff"}));
  verb->add_option("--as", options->as, "text, json, nbdinfo, qemu or svg")
      ->check(CLI::IsMember({"text", "json", "nbdinfo", "qemu", "svg"}));
  verb->add_flag("--json", options->json, "The same as --as json");
  verb->add_flag("--runs", options->runs, "With text: every run as offset and length in bytes");
}

}  // namespace snbf
