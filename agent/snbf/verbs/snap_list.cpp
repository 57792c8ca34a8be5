// SPDX-License-Identifier: GPL-2.0-only
// snbf snap list: the snaps, as a table or hanging on their nodes.
#include <fmt/format.h>

#include "command.h"
#include "driver.h"
#include "failure.h"
#include "output.h"
#include "reasons.h"
#include "sizes.h"
#include "snaps.h"

namespace snbf {

namespace {

struct Options {
  std::string node;
  bool tree = false;
  bool no_headings = false;
  bool json = false;
};

void print_tree(const snbf_info& filter, const std::vector<Snap>& snaps) {
  const bool unicode = terminal_out();
  fmt::print("{} ({}) over {}\n", filter.name, node_path(filter), filter.hdd_name);
  for (size_t i = 0; i < snaps.size(); ++i) {
    const bool last = i + 1 == snaps.size();
    const char* branch = unicode ? (last ? "└─ " : "├─ ") : (last ? "`- " : "|- ");
    fmt::print("{}{}: {}, {} copied\n", branch, snaps[i].name(), describe_state(snaps[i]),
               show_size(snaps[i].cow_bytes()));
  }
}

int list(const Options& options) {
  const Driver driver;
  std::vector<snbf_info> filters;
  if (options.node.empty()) {
    filters = driver.filters();
  } else {
    filters.push_back(driver.find(options.node));
  }
  Table table({{"NAME"},
               {"NODE"},
               {"STATE"},
               {"CHUNK", true},
               {"COPIED", true},
               {"OPENS", true},
               {"CREATED"},
               {"COW DATA"}});
  Json all = Json::array();
  for (const snbf_info& filter : filters) {
    const std::vector<Snap> snaps = snaps_of(driver, filter);
    if (options.tree && !options.json) print_tree(filter, snaps);
    for (const Snap& snap : snaps) {
      all.push_back(snap_json(snap));
      const uint32_t chunk = snap.node ? snap.node->chunk_size : snap.record.chunk_size;
      table.add({snap.name(), filter.name, snap.state(), show_size(chunk),
                 show_size(snap.cow_bytes()), snap.node ? std::to_string(snap.node->use_cnt) : "-",
                 snap.record.created ? show_time(snap.record.created) : "-", snap.data_file()});
    }
  }
  if (options.json) {
    print_json({{"snaps", all}});
  } else if (!options.tree) {
    table.print(!options.no_headings);
  }
  return kDone;
}

}  // namespace

void add_snap_list(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "list", "List the snaps, oldest first",
      "Example:\n  snbf snap list data --tree\n"
      "States: started; going, it waits for older ones and cannot be read; lost, a copy failed;\n"
      "resumable, stopped with its node; dead, stopped and of no use.",
      options, list);
  verb->add_option("node", options->node, "Of this node only");
  verb->add_flag("--tree", options->tree, "Below their nodes, and why a dead one is dead");
  verb->add_flag("--noheadings", options->no_headings, "Leave the heading out");
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
