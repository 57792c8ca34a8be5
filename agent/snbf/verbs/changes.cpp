// SPDX-License-Identifier: GPL-2.0-only
// snbf changes: what changed, and where.
#include <fmt/format.h>

#include "command.h"
#include "costs.h"
#include "driver.h"
#include "failure.h"
#include "hilbert_map.h"
#include "layout.h"
#include "maps.h"
#include "output.h"
#include "sizes.h"
#include "snaps.h"
#include "usage.h"

namespace snbf {

namespace {

constexpr size_t kStripWidth = 78;  // and a bracket at either end

struct Options {
  std::string node;
  std::string bitmap = "incr";
  std::string as = "text";
  bool json = false;
  bool runs = false;
  bool used_only = false;
  bool costs = false;
};

// What is shown: all that changed, or the part of it that a snap's file system uses.
struct Shown {
  Extents changed;
  Extents extents;
  std::string snap;     // whose map says what is used; empty: nobody's
  std::string why_all;  // why all of it counts as used; empty: it is known
};

// The newest started snap, if there is one: it knows best what is in use.
std::optional<snbf_info> newest_started(const Driver& driver, const snbf_info& node) {
  const std::vector<Snap> snaps = snaps_of(driver, node);
  for (auto at = snaps.rbegin(); at != snaps.rend(); ++at) {
    if (at->readable()) return at->node;
  }
  return std::nullopt;
}

snbf_info snap_with_map(const Driver& driver, const snbf_info& node) {
  if (const auto snap = newest_started(driver, node)) return *snap;
  throw Failure(kFailed,
                fmt::format("what is in use on {} is not known: only a started snap shows it, and "
                            "there is none",
                            node.name),
                fmt::format("`snbf snap create {}` makes one", node.name));
}

Shown look(const Driver& driver, const snbf_info& node, const Options& options) {
  Shown shown;
  if (!options.used_only) {
    shown.changed = shown.extents = driver.get(node, parse_bitmap(options.bitmap));
    return shown;
  }
  const snbf_info snap = snap_with_map(driver, node);
  const Usage usage = usage_of(driver, node, snap, snap_path(snap));
  shown.changed = shown.extents = driver.get(node, parse_bitmap(options.bitmap));
  Extents unused = shown.changed;
  unused.subtract(usage.used);
  shown.extents.subtract(unused);
  shown.snap = snap.name;
  shown.why_all = usage.why_all;
  return shown;
}

std::string since_what(const Options& options) {
  return options.bitmap == "incr" ? "since the last backup" : "since the last full backup";
}

std::string totals(const snbf_info& node, const Shown& shown, const Options& options) {
  const Extents& extents = shown.extents;
  const uint64_t covered = extents.covered_bytes();
  const std::string what =
      options.used_only
          ? fmt::format("{} of the {} that changed was in use when {} was made", show_size(covered),
                        show_size(shown.changed.covered_bytes()), shown.snap)
          : fmt::format(
                "{} of {} changed {} ({:.1f} %)", show_size(covered), show_size(extents.dev_size()),
                since_what(options),
                100.0 * static_cast<double>(covered) / static_cast<double>(extents.dev_size()));
  return fmt::format("{}: {}, {} of {} extents in {} runs", node.name, what, extents.count(),
                     extents.extent_cnt(), extents.runs().size());
}

void print_text(const snbf_info& node, const Shown& shown, const Options& options) {
  const Extents& extents = shown.extents;
  print_entry("", totals(node, shown, options));
  fmt::print("[{}]\n", strip(extents, kStripWidth, terminal_out()));
  if (!options.runs) return;
  for (const Run& run : extents.runs()) {
    const ByteRange range = extents.range_of(run);
    fmt::print("{:>16} {:>14}\n", range.offset, range.length);
  }
}

// With what is in use, where a snap can tell.
std::string drawing(const Driver& driver, const snbf_info& node, const Shown& shown,
                    const Options& options) {
  DeviceMap map{node.name, since_what(options), shown.changed, std::nullopt, ""};
  if (const auto snap = newest_started(driver, node)) {
    Usage usage = usage_of(driver, node, *snap, snap_path(*snap));
    if (usage.why_all.empty()) {
      map.used = std::move(usage.used);
      map.used_by = snap->name;
    }
  }
  return hilbert_svg(map);
}

void print_costs(const snbf_info& node, const Shown& shown, const Options& options) {
  const std::vector<Cost> costs = cost_curve(shown.extents);
  const std::string what = since_what(options) + (options.used_only ? " and is in use" : "");
  if (options.json || options.as == "json") {
    print_json({{"name", node.name},
                {"bitmap", options.bitmap},
                {"size", node.dev_size},
                {"costs", costs_json(costs)}});
  } else if (options.as == "svg") {
    fmt::print("{}", costs_svg(node.name, what, node.dev_size, costs));
  } else {
    print_entry("",
                fmt::format("{}: what a backup would copy of what changed {}", node.name, what));
    fmt::print("{}", costs_text(node.dev_size, costs, terminal_out()));
  }
}

void print_changes_json(const snbf_info& node, const Shown& shown, const Options& options) {
  const Extents& extents = shown.extents;
  Json runs = Json::array();
  for (const Run& run : extents.runs()) {
    const ByteRange range = extents.range_of(run);
    runs.push_back({{"offset", range.offset}, {"length", range.length}});
  }
  Json json = {{"name", node.name},
               {"bitmap", options.bitmap},
               {"size", extents.dev_size()},
               {"extent_size", extents.extent_size()},
               {"extent_count", extents.extent_cnt()},
               {"changed_extents", shown.changed.count()},
               {"changed_bytes", shown.changed.covered_bytes()},
               {"runs", runs}};
  if (options.used_only) {
    json["used_by"] = shown.snap;
    json["used_extents"] = extents.count();
    json["used_bytes"] = extents.covered_bytes();
    json["all_used_because"] = shown.why_all;
  }
  print_json(json);
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

void print_changes(const Driver& driver, const snbf_info& node, const Shown& shown,
                   const Options& options) {
  if (options.json || options.as == "json") {
    print_changes_json(node, shown, options);
  } else if (options.as == "nbdinfo") {
    print_nbdinfo(shown.extents);
  } else if (options.as == "qemu") {
    print_qemu(shown.extents);
  } else if (options.as == "svg") {
    fmt::print("{}", drawing(driver, node, shown, options));
  } else {
    print_text(node, shown, options);
  }
}

int changes(const Options& options) {
  if (options.costs && (options.as == "nbdinfo" || options.as == "qemu")) {
    throw Failure(kMisused, "--costs and --as " + options.as + " do not go together",
                  "the costs come as text, json or svg");
  }
  const Driver driver;
  const snbf_info node = driver.find(options.node);
  const Shown shown = look(driver, node, options);
  if (options.costs) {
    print_costs(node, shown, options);
  } else {
    print_changes(driver, node, shown, options);
  }
  if (shown.why_all.empty()) return kDone;
  warn("all that changed counts as in use: " + shown.why_all);
  return kWarned;
}

}  // namespace

void add_changes(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "changes", "Show what has changed, and where",
      "Examples:\n  snbf changes data\n  snbf changes data --bitmap diff --as svg > changes.svg\n"
      "  snbf changes data --costs\n"
      "  snbf snap create data && snbf changes data --used-only\n"
      "The forms: text, a line of totals and a strip from the device's start to its end;\n"
      "json; nbdinfo, as `nbdinfo --map` prints it; qemu, as `qemu-img map --output=json`\n"
      "does (data: true where it changed); svg, a drawing along a Hilbert curve, which also shows\n"
      "what is in use and what is free while a snap is started.\n\n"
      "With --used-only, what was free when the newest started snap was made is left out: make the "
      "snap\nright before. Status 3: what is in use cannot be told.",
      options, changes);
  verb->add_option("node", options->node, "Name, minor, device file or partition")->required();
  verb->add_option("--bitmap", options->bitmap,
                   "incr: since the last backup; diff: since the last full one")
      ->check(CLI::IsMember({"incr", "diff"}));
  verb->add_option("--as", options->as, "text, json, nbdinfo, qemu or svg")
      ->check(CLI::IsMember({"text", "json", "nbdinfo", "qemu", "svg"}));
  verb->add_flag("--json", options->json, "The same as --as json");
  verb->add_flag("--used-only", options->used_only,
                 "Only what the file system used when the newest started snap was made");
  verb->add_flag("--costs", options->costs,
                 "What a backup would copy at other extent sizes; as text, json or svg");
  verb->add_flag("--runs", options->runs, "With text: every run as offset and length in bytes");
}

}  // namespace snbf
