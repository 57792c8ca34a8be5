// SPDX-License-Identifier: GPL-2.0-only
// snbf status: all that is known of one node.
#include <fmt/format.h>

#include <optional>

#include "boot_files.h"
#include "command.h"
#include "driver.h"
#include "facts.h"
#include "failure.h"
#include "files.h"
#include "layout.h"
#include "libsnbf_capture.h"
#include "output.h"
#include "reasons.h"
#include "sizes.h"
#include "snaps.h"

namespace snbf {

namespace {

struct Options {
  std::string node;
  bool json = false;
};

Json bitmap_json(const Driver& driver, const snbf_info& node, uint32_t type, const char* point) {
  const Extents extents = driver.get(node, type);
  return {{"changed_extents", extents.count()},
          {"changed_bytes", extents.covered_bytes()},
          {"saved", !driver.unsaved(node, type)},
          {"file", type == SNBF_BMP_INCR ? node.incr_bmp_fname : node.diff_bmp_fname},
          {"counts_from", point}};
}

// Seconds, or null. What is overwritten is copied into the newest snap alone.
Json cow_full_in(const std::vector<Snap>& snaps) {
  if (snaps.empty()) return nullptr;
  const auto seconds = seconds_until_full(snaps.back());
  return seconds ? Json(*seconds) : Json(nullptr);
}

// A backup of the node has this locked while it is at work.
std::string backup_lock(const snbf_info& node) {
  return fmt::format("{}/snbf{}.lock", bmp_dir_of(node), node.minor);
}

// All that is shown.
struct Status {
  snbf_info node;
  libsnbf_state state;
  libsnbf_last_capture last;
  std::string why_full;
  std::vector<std::string> holders;
  std::vector<Snap> snaps;
  Json cow_full_in;
  bool unfinished;  // a backup is under way, or was cut off
  bool under_way;
  Json incr;
  Json diff;
  std::optional<BootNode> at_boot;
};

Status status_of(const Driver& driver, const snbf_info& node) {
  Status found{node,
               read_state(node),
               last_capture_of(driver, node),
               "",
               {},
               snaps_of(driver, node),
               nullptr,
               false,
               false,
               {},
               {},
               {}};
  found.why_full = why_next_full(found.state);
  if (node.use_cnt != 0) found.holders = holders_of(device_of(node_path(node)));
  found.cow_full_in = cow_full_in(found.snaps);
  int pending = 0;
  must(libsnbf_capture_pending(driver.get(), node.minor, &pending),
       "reading the capture's journal");
  found.unfinished = pending != 0;
  found.under_way = found.unfinished && is_locked(backup_lock(node));
  found.incr = bitmap_json(driver, node, SNBF_BMP_INCR, found.state.incr_point);
  found.diff = bitmap_json(driver, node, SNBF_BMP_DIFF, found.state.diff_point);
  const std::vector<BootNode> boot = read_boot_nodes().nodes;
  if (const BootNode* line = boot_node_of(boot, node.name)) found.at_boot = *line;
  return found;
}

Json time_json(int64_t time) { return time ? Json(show_time(time)) : Json(nullptr); }

void print_status_json(const Status& status) {
  Json snaps = Json::array();
  for (const Snap& snap : status.snaps) snaps.push_back(snap_json(snap));
  Json json = node_json(status.node);
  json["held_by"] = status.holders;
  json["snap_list"] = snaps;
  json["cow_full_in_seconds"] = status.cow_full_in;
  json["incremental"] = status.incr;
  json["differential"] = status.diff;
  json["last_backup"] = time_json(status.last.any);
  json["last_full_backup"] = time_json(status.last.full);
  json["next_backup"] = status.why_full.empty() ? "incremental" : "full";
  json["next_backup_full_because"] = status.why_full;
  json["capture_pending"] = status.unfinished;
  json["capture_under_way"] = status.under_way;
  json["at_boot"] = status.at_boot.has_value();
  print_json(json);
}

void print_row(const char* label, const std::string& text) {
  print_entry(fmt::format("{:<15}", label), text);
}

std::string bytes_text(const Json& bitmap) {
  return fmt::format("{} in {} extents{}", show_size(bitmap["changed_bytes"].get<uint64_t>()),
                     bitmap["changed_extents"].get<uint64_t>(),
                     bitmap["saved"].get<bool>() ? "" : " (not yet in its file)");
}

void print_backups(const Status& status) {
  const libsnbf_last_capture& last = status.last;
  if (last.any != 0) {
    const std::string full = last.full == 0          ? "none is known"
                             : last.full == last.any ? "it was full"
                                                     : "the last full one " + show_time(last.full);
    print_row("last backup", show_time(last.any) + ", " + full);
  }
  print_row("next backup", status.why_full.empty()
                               ? "incremental"
                               : "full, because " + reason_text(status.why_full));
  if (status.unfinished) {
    print_row("unfinished", status.under_way
                                ? "a backup is under way"
                                : "a backup was cut off; the next one gives its extents back");
  }
}

void print_status(const Status& status) {
  const snbf_info& node = status.node;
  print_row("node", fmt::format("{} ({}), {}", node.name, node_path(node),
                                node.started ? "started" : "stopped"));
  print_row("partition", fmt::format("{}, {}", node.hdd_name, show_size(node.dev_size)));
  print_row("extents", fmt::format("{} of {}", node.extent_cnt, show_size(node.extent_size)));
  print_row("since backup", bytes_text(status.incr));
  print_row("since full", bytes_text(status.diff));
  print_row("bitmaps", bmp_dir_of(node));
  print_row("at boot", status.at_boot ? fmt::format("comes up by itself ({}, line {})", kBootFile,
                                                    status.at_boot->line)
                                      : "is not attached by itself");
  for (const std::string& holder : status.holders) print_row("in use", holder);
  for (const Snap& snap : status.snaps) {
    print_row("snap", fmt::format("{}: {}, {} copied, {} free", snap.name(), describe_state(snap),
                                  show_size(snap.cow_bytes()),
                                  show_size(free_bytes_in(folder_of(snap.data_file())))));
  }
  if (!status.cow_full_in.is_null()) {
    print_row("COW files", fmt::format("full in {}, at this pace",
                                       show_duration(status.cow_full_in.get<uint64_t>())));
  }
  print_backups(status);
}

int status(const Options& options) {
  const Driver driver;
  const Status found = status_of(driver, driver.find(options.node));
  if (options.json) {
    print_status_json(found);
  } else {
    print_status(found);
  }
  return kDone;
}

}  // namespace

void add_status(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(app, chosen, "status",
                            "Show one node: who uses it, what changed, why the next backup is full",
                            "Example:\n  snbf status data --json", options, status);
  verb->add_option("node", options->node, "Name, minor, device file or partition")->required();
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
