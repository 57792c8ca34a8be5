// SPDX-License-Identifier: GPL-2.0-only
// snbf list: the nodes, as a table.
#include <fmt/format.h>

#include <sstream>

#include "boot_files.h"
#include "command.h"
#include "driver.h"
#include "failure.h"
#include "output.h"
#include "sizes.h"

namespace snbf {

namespace {

struct Options {
  std::string columns = "name,minor,state,size,extent,changed,opens,snaps,partition";
  std::string units = "h";
  bool no_headings = false;
  bool json = false;
};

struct Row {
  snbf_info node;
  uint64_t changed_bytes;
  char units;
  bool at_boot;
};

struct Field {
  const char* name;
  const char* title;
  bool right;
  std::string (*text)(const Row&);
};

const Field kFields[] = {
    {"name", "NAME", false, [](const Row& row) { return std::string(row.node.name); }},
    {"minor", "MINOR", true, [](const Row& row) { return std::to_string(row.node.minor); }},
    {"state", "STATE", false,
     [](const Row& row) { return std::string(row.node.started ? "started" : "stopped"); }},
    {"size", "SIZE", true,
     [](const Row& row) { return show_size_in(row.node.dev_size, row.units); }},
    {"extent", "EXTENT", true,
     [](const Row& row) { return show_size_in(row.node.extent_size, row.units); }},
    {"changed", "CHANGED", true,
     [](const Row& row) { return show_size_in(row.changed_bytes, row.units); }},
    {"opens", "OPENS", true, [](const Row& row) { return std::to_string(row.node.use_cnt); }},
    {"snaps", "SNAPS", true, [](const Row& row) { return std::to_string(row.node.snap_cnt); }},
    {"partition", "PARTITION", false,
     [](const Row& row) { return std::string(row.node.hdd_name); }},
    {"device", "DEVICE", false, [](const Row& row) { return node_path(row.node); }},
    {"uuid", "UUID", false, [](const Row& row) { return std::string(row.node.uuid); }},
    {"boot", "BOOT", false, [](const Row& row) { return std::string(row.at_boot ? "yes" : "no"); }},
    {"bitmaps", "BITMAPS", false, [](const Row& row) { return bmp_dir_of(row.node); }},
};

std::vector<const Field*> chosen_fields(const std::string& columns) {
  std::vector<const Field*> fields;
  std::istringstream words(columns);
  for (std::string word; std::getline(words, word, ',');) {
    const Field* found = nullptr;
    for (const Field& field : kFields) {
      if (word == field.name) found = &field;
    }
    if (!found) {
      std::string known;
      for (const Field& field : kFields) known += fmt::format(" {}", field.name);
      throw Failure(kMisused, fmt::format("there is no column {}", word),
                    "the columns are:" + known);
    }
    fields.push_back(found);
  }
  return fields;
}

int list(const Options& options) {
  const auto fields = chosen_fields(options.columns);
  const Driver driver;
  std::vector<Table::Column> columns;
  for (const Field* field : fields) columns.push_back({field->title, field->right});
  Table table(columns);
  Json nodes = Json::array();
  const std::vector<BootNode> at_boot = read_boot_nodes().nodes;
  for (const snbf_info& node : driver.filters()) {
    const Row row{node, driver.get(node, SNBF_BMP_INCR).covered_bytes(), options.units[0],
                  boot_node_of(at_boot, node.name) != nullptr};
    std::vector<std::string> cells;
    for (const Field* field : fields) cells.push_back(field->text(row));
    table.add(cells);
    Json json = node_json(node);
    json["changed_bytes"] = row.changed_bytes;
    json["at_boot"] = row.at_boot;
    nodes.push_back(json);
  }
  if (options.json) {
    print_json({{"nodes", nodes}});
  } else {
    table.print(!options.no_headings);
  }
  return kDone;
}

}  // namespace

void add_list(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb =
      add_verb(app, chosen, "list", "List the nodes",
               "Example:\n  snbf list -o name,changed --units m --noheadings", options, list);
  verb->add_option("-o,--output", options->columns, "Columns, separated by commas");
  verb->add_option("--units", options->units, "h(uman), b, k, m, g or t")
      ->check(CLI::IsMember({"h", "b", "k", "m", "g", "t"}));
  verb->add_flag("--noheadings", options->no_headings, "Leave the heading out");
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
