// SPDX-License-Identifier: GPL-2.0-only
// snbf status: all that is known of one node.
#include <fmt/format.h>

#include "boot_files.h"
#include "capture_journal.h"
#include "command.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
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

// Why the next backup must be full; empty: it need not.
std::string next_full(const libsnbf_state& state) {
  return state.incr_point[0] ? state.distrust : kWhyFirst;
}

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

int status(const Options& options) {
  const Driver driver;
  const snbf_info node = driver.find(options.node);
  const libsnbf_state state = read_state(node);
  const std::string why = next_full(state);
  const auto holders =
      node.use_cnt ? holders_of(device_of(node_path(node))) : std::vector<std::string>{};
  const std::vector<Snap> snaps = snaps_of(driver, node);
  const Json full_in = cow_full_in(snaps);
  const bool pending = CaptureJournal(bmp_dir_of(node), node.minor).exists();
  const std::vector<BootNode> boot = read_boot_nodes().nodes;
  const BootNode* at_boot = boot_node_of(boot, node.name);
  const Json incr = bitmap_json(driver, node, SNBF_BMP_INCR, state.incr_point);
  const Json diff = bitmap_json(driver, node, SNBF_BMP_DIFF, state.diff_point);
  if (options.json) {
    Json snaps_json = Json::array();
    for (const Snap& snap : snaps) snaps_json.push_back(snap_json(snap));
    Json json = node_json(node);
    json["held_by"] = holders;
    json["snap_list"] = snaps_json;
    json["cow_full_in_seconds"] = full_in;
    json["incremental"] = incr;
    json["differential"] = diff;
    json["next_backup"] = why.empty() ? "incremental" : "full";
    json["next_backup_full_because"] = why;
    json["capture_pending"] = pending;
    json["at_boot"] = at_boot != nullptr;
    print_json(json);
    return kDone;
  }
  const auto bytes_of = [](const Json& bitmap) {
    return fmt::format("{} in {} extents{}", show_size(bitmap["changed_bytes"].get<uint64_t>()),
                       bitmap["changed_extents"].get<uint64_t>(),
                       bitmap["saved"].get<bool>() ? "" : " (not yet in its file)");
  };
  fmt::print("node           {} ({}), {}\n", node.name, node_path(node),
             node.started ? "started" : "stopped");
  fmt::print("partition      {}, {}\n", node.hdd_name, show_size(node.dev_size));
  fmt::print("extents        {} of {}\n", node.extent_cnt, show_size(node.extent_size));
  fmt::print("since backup   {}\n", bytes_of(incr));
  fmt::print("since full     {}\n", bytes_of(diff));
  fmt::print("bitmaps        {}\n", bmp_dir_of(node));
  fmt::print("at boot        {}\n",
             at_boot ? fmt::format("comes up by itself ({}, line {})", kBootFile, at_boot->line)
                     : "is not attached by itself");
  for (const std::string& holder : holders) fmt::print("in use         {}\n", holder);
  for (const Snap& snap : snaps) {
    fmt::print("snap           {}: {}, {} copied, {} free\n", snap.name(), describe_state(snap),
               show_size(snap.cow_bytes()), show_size(free_bytes_in(folder_of(snap.data_file()))));
  }
  if (!full_in.is_null()) fmt::print("COW files      full in {} s, at this pace\n", full_in.dump());
  fmt::print("next backup    {}\n",
             why.empty() ? "incremental" : "full, because " + reason_text(why));
  if (pending)
    fmt::print("unfinished     a backup was cut off; the next one gives its extents back\n");
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
