// SPDX-License-Identifier: GPL-2.0-only
#include "metrics.h"

#include <fmt/format.h>

#include <utility>

namespace snbf {

namespace {

using Labels = std::vector<std::pair<const char*, std::string>>;
using Nodes = std::vector<NodeFacts>;

constexpr const char* kSnapStates[] = {"started", "going", "lost", "resumable", "dead"};

std::string escaped(const std::string& value) {
  std::string out;
  for (const char c : value) {
    if (c == '\n') {
      out += "\\n";
    } else {
      out += (c == '\\' || c == '"') ? "\\" + std::string(1, c) : std::string(1, c);
    }
  }
  return out;
}

// One metric with all its samples: the format wants them in one piece.
class Metric {
 public:
  Metric(const char* name, const char* help)
      : name_(name), text_(fmt::format("# HELP {0} {1}\n# TYPE {0} gauge\n", name, help)) {}

  template <class Number>
  void add(const Labels& labels, Number value) {
    std::string inside;
    for (const auto& [label, text] : labels) {
      inside += fmt::format("{}{}=\"{}\"", inside.empty() ? "" : ",", label, escaped(text));
    }
    text_ += name_ + (inside.empty() ? "" : "{" + inside + "}") + fmt::format(" {}\n", value);
    empty_ = false;
  }
  std::string text() const { return empty_ ? "" : text_; }

 private:
  std::string name_;
  std::string text_;
  bool empty_ = true;
};

template <class Value>
std::string of_nodes(const Nodes& nodes, const char* name, const char* help, Value value) {
  Metric metric(name, help);
  for (const NodeFacts& node : nodes) metric.add({{"node", node.name}}, value(node));
  return metric.text();
}

template <class Value>
std::string of_bitmaps(const Nodes& nodes, const char* name, const char* help, Value value) {
  Metric metric(name, help);
  for (const NodeFacts& node : nodes) {
    metric.add({{"node", node.name}, {"bitmap", "incr"}}, value(node.incr));
    metric.add({{"node", node.name}, {"bitmap", "diff"}}, value(node.diff));
  }
  return metric.text();
}

std::string about_nodes(const Nodes& nodes) {
  Metric info("snbf_node_info", "What a node is; the value is always 1.");
  for (const NodeFacts& node : nodes) {
    info.add({{"node", node.name},
              {"device", node.device},
              {"partition", node.partition},
              {"uuid", node.uuid}},
             1);
  }
  return info.text() +
         of_nodes(nodes, "snbf_node_tracking", "1 while the node is started and marks writes.",
                  [](const NodeFacts& node) { return int{node.started}; }) +
         of_nodes(nodes, "snbf_node_opens", "How often the node is open.",
                  [](const NodeFacts& node) { return node.opens; }) +
         of_nodes(nodes, "snbf_node_size_bytes", "Size of the partition.",
                  [](const NodeFacts& node) { return node.size; }) +
         of_nodes(nodes, "snbf_node_extent_size_bytes", "What one bit of the bitmaps stands for.",
                  [](const NodeFacts& node) { return node.extent_size; }) +
         of_bitmaps(nodes, "snbf_node_changed_bytes",
                    "Changed since the last backup (incr), or since the last full one (diff).",
                    [](const BitmapFacts& bitmap) { return bitmap.extents.covered_bytes(); }) +
         of_bitmaps(nodes, "snbf_node_bitmap_unsaved",
                    "1 while memory holds what the bitmap's file does not.",
                    [](const BitmapFacts& bitmap) { return int{bitmap.unsaved}; });
}

std::string last_backup(const Nodes& nodes) {
  Metric any("snbf_node_last_backup_timestamp_seconds", "When the last backup was complete.");
  Metric full("snbf_node_last_full_backup_timestamp_seconds",
              "When the last full backup was complete.");
  for (const NodeFacts& node : nodes) {
    if (node.last_backup != 0) any.add({{"node", node.name}}, node.last_backup);
    if (node.last_full_backup != 0) full.add({{"node", node.name}}, node.last_full_backup);
  }
  return any.text() + full.text();
}

std::string about_backups(const Nodes& nodes) {
  Metric why("snbf_node_next_backup_full_info", "Why the next backup must be full.");
  for (const NodeFacts& node : nodes) {
    if (!node.next_full.empty()) why.add({{"node", node.name}, {"reason", node.next_full}}, 1);
  }
  return last_backup(nodes) +
         of_nodes(nodes, "snbf_node_next_backup_full", "1 while the next backup must be full.",
                  [](const NodeFacts& node) { return int{!node.next_full.empty()}; }) +
         why.text() +
         of_nodes(nodes, "snbf_node_backup_unfinished",
                  "1 while a backup is under way, or when one was cut off.",
                  [](const NodeFacts& node) { return int{node.unfinished}; });
}

std::string about_snaps(const Nodes& nodes) {
  Metric states("snbf_snap_state", "1 for the state that the snap is in.");
  Metric created("snbf_snap_created_timestamp_seconds", "When the snap was made.");
  Metric opens("snbf_snap_opens", "How often the snap is open.");
  Metric held("snbf_snap_cow_bytes", "What the snap's COW data takes up.");
  Metric room("snbf_snap_cow_free_bytes", "Free space where the snap's COW files lie.");
  Metric full("snbf_snap_cow_full_seconds",
              "Until that space is full, at the pace so far; absent if it cannot come to that.");
  for (const NodeFacts& node : nodes) {
    for (const SnapFacts& snap : node.snaps) {
      const Labels labels = {{"node", node.name}, {"snap", snap.name}};
      for (const char* state : kSnapStates) {
        states.add({labels[0], labels[1], {"state", state}}, int{snap.state == state});
      }
      if (snap.created != 0) created.add(labels, snap.created);
      opens.add(labels, snap.opens);
      held.add(labels, snap.cow_bytes);
      room.add(labels, snap.cow_free_bytes);
      if (snap.full_in_s) full.add(labels, *snap.full_in_s);
    }
  }
  return states.text() + created.text() + opens.text() + held.text() + room.text() + full.text();
}

}  // namespace

std::string metrics_text(const std::string& tool, const LoadedDriver& driver, const Nodes& nodes) {
  Metric up("snbf_up", "1 while the driver is loaded.");
  up.add({}, int{driver.loaded});
  Metric info("snbf_build_info", "Versions of the tool and of the driver; the value is always 1.");
  info.add({{"version", tool}, {"driver", driver.version}}, 1);
  return up.text() + info.text() + about_nodes(nodes) + about_backups(nodes) + about_snaps(nodes);
}

}  // namespace snbf
