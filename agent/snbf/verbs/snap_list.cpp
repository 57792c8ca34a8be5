// SPDX-License-Identifier: GPL-2.0-only
// snbf snap list: the snaps, as a table or hanging on their nodes.
#include <fmt/format.h>

#include "command.h"
#include "driver.h"
#include "facts.h"
#include "failure.h"
#include "layout.h"
#include "output.h"
#include "sizes.h"
#include "snap_tree.h"
#include "snaps.h"

namespace snbf {

namespace {

struct Options {
  std::string node;
  bool tree = false;
  std::string as = "text";
  bool no_headings = false;
  bool json = false;
};

Table new_table() {
  return Table({{"NAME"},
                {"NODE"},
                {"STATE"},
                {"CHUNK", true},
                {"COPIED", true},
                {"OPENS", true},
                {"CREATED"},
                {"COW DATA"}});
}

std::vector<std::string> row_of(const Snap& snap) {
  const uint32_t chunk = snap.node ? snap.node->chunk_size : snap.record.chunk_size;
  return {snap.name(),
          snap.filter.name,
          snap.state(),
          show_size(chunk),
          show_size(snap.cow_bytes()),
          snap.node ? std::to_string(snap.node->use_cnt) : "-",
          snap.record.created ? show_time(snap.record.created) : "-",
          snap.data_file()};
}

void print_tree(const std::vector<NodeFacts>& nodes, const Options& options) {
  if (options.as == "svg") {
    fmt::print("{}", snap_tree_svg(nodes));
    return;
  }
  for (const NodeFacts& node : nodes) {
    fmt::print("{}", snap_tree_text(node, terminal_columns(), terminal_out()));
  }
}

void print_list(const Driver& driver, const std::vector<snbf_info>& filters,
                const Options& options) {
  Table table = new_table();
  Json all = Json::array();
  for (const snbf_info& filter : filters) {
    for (const Snap& snap : snaps_of(driver, filter)) {
      all.push_back(snap_json(snap));
      table.add(row_of(snap));
    }
  }
  if (options.json) {
    print_json({{"snaps", all}});
  } else {
    table.print(!options.no_headings);
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
  if (options.json || (!options.tree && options.as == "text")) {
    print_list(driver, filters, options);
    return kDone;
  }
  std::vector<NodeFacts> nodes;
  for (const snbf_info& filter : filters) nodes.push_back(look_at(driver, filter));
  print_tree(nodes, options);
  return kDone;
}

}  // namespace

void add_snap_list(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "list", "List the snaps, oldest first",
      "Examples:\n  snbf snap list data --tree\n"
      "  snbf snap list --as svg > snaps.svg\n"
      "States: started; going, it waits for older ones and cannot be read; lost, a copy failed;\n"
      "resumable, stopped with its node; dead, stopped and of no use.",
      options, list);
  verb->add_option("node", options->node, "Of this node only");
  verb->add_flag("--tree", options->tree, "Below their nodes, and why a dead one is dead");
  verb->add_option("--as", options->as, "text, or the tree as a drawing: svg")
      ->check(CLI::IsMember({"text", "svg"}));
  verb->add_flag("--noheadings", options->no_headings, "Leave the heading out");
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
