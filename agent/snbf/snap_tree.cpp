// SPDX-License-Identifier: GPL-2.0-only
#include "snap_tree.h"

#include <fmt/format.h>

#include <algorithm>

#include "layout.h"
#include "sizes.h"
#include "svg.h"

namespace snbf {

namespace {

constexpr double kWidth = 760;
constexpr double kLeft = 32;
constexpr double kTop = 84;
constexpr double kHead = 54;  // of a node
constexpr double kRow = 46;   // of a snap
constexpr double kStem = kLeft + 20;
constexpr double kName = kStem + 30;
constexpr double kBar = 440;
constexpr double kBarMax = 200;
constexpr size_t kNameShown = 40;
constexpr size_t kAboutShown = 58;

const char* state_colour(const SnapFacts& snap) {
  if (snap.state == "started") return kBlue;
  if (snap.state == "resumable") return "#8db9dd";
  return snap.state == "dead" ? "#9aa5af" : kOrange;
}

std::string holds_text(const SnapFacts& snap) {
  std::string text = show_size(snap.cow_bytes) + " copied";
  if (snap.full_in_s) text += ", its disk is full in " + show_duration(*snap.full_in_s);
  return text;
}

uint64_t most_held(const std::vector<NodeFacts>& nodes) {
  uint64_t most = 1;
  for (const NodeFacts& node : nodes) {
    for (const SnapFacts& snap : node.snaps) most = std::max(most, snap.cow_bytes);
  }
  return most;
}

std::string snap_row(const SnapFacts& snap, double y, uint64_t most) {
  const double share = static_cast<double>(snap.cow_bytes) / static_cast<double>(most);
  const double bar = snap.cow_bytes == 0 ? 0 : std::max(2.0, kBarMax * share);
  std::string about = snap.about;
  if (snap.created != 0) about = show_time(snap.created) + ", " + about;
  return svg_line(kStem, y, kName - 10, y, kLine, 2) + svg_circle(kStem, y, 7, state_colour(snap)) +
         svg_text(kName, y - 2, shortened(snap.name, kNameShown, true), {14, kInk, "start", true}) +
         svg_text(kName, y + 14, shortened(about, kAboutShown, true), {11, kFaint}) +
         svg_rect(kBar, y - 8, kBarMax, 14, "#eef1f3", 3) +
         svg_rect(kBar, y - 8, bar, 14, state_colour(snap), 3) +
         svg_text(kBar + kBarMax + 10, y + 4, show_size(snap.cow_bytes), {12});
}

// Answers where the next node begins.
double add_node(const NodeFacts& node, double y, uint64_t most, std::string* out) {
  const double last = y + kHead + kRow * (static_cast<double>(node.snaps.size()) - 0.5);
  if (!node.snaps.empty()) *out += svg_line(kStem, y + 34, kStem, last, kLine, 2);
  *out += svg_rect(kLeft, y, kWidth - 2 * kLeft, 38, "#eaf1f8", 6);
  *out += svg_text(kLeft + 16, y + 24, shortened(node.name, kNameShown, true),
                   {15, kInk, "start", true});
  *out += svg_text(kWidth - kLeft - 16, y + 24,
                   shortened(fmt::format("{}, {}, {}", node.partition, show_size(node.size),
                                         node.started ? "started" : "stopped"),
                             kNameShown, true),
                   {12, kFaint, "end"});
  double at = y + kHead + kRow / 2;
  for (const SnapFacts& snap : node.snaps) {
    *out += snap_row(snap, at, most);
    at += kRow;
  }
  if (node.snaps.empty()) {
    *out += svg_text(kName, y + kHead + 14, "no snaps", {12, kFaint});
    at += kRow / 2;
  }
  return at - kRow / 2 + 16;
}

}  // namespace

std::string snap_tree_text(const NodeFacts& node, size_t columns, bool unicode) {
  std::string out = entry_text(
      "", fmt::format("{} ({}) over {}", node.name, node.device, node.partition), columns, unicode);
  for (size_t i = 0; i < node.snaps.size(); ++i) {
    const SnapFacts& snap = node.snaps[i];
    const bool last = i + 1 == node.snaps.size();
    const char* branch = unicode ? (last ? "└─ " : "├─ ") : (last ? "`- " : "|- ");
    out += entry_text(branch, fmt::format("{}: {}, {}", snap.name, snap.about, holds_text(snap)),
                      columns, unicode);
  }
  return out;
}

std::string snap_tree_svg(const std::vector<NodeFacts>& nodes) {
  const uint64_t most = most_held(nodes);
  std::string body =
      svg_text(kLeft, 36, "Snaps, and what each holds", {19, kInk, "start", true}) +
      svg_text(kLeft, 58, "Oldest first. What is overwritten is copied once, into the newest.",
               {13, kFaint});
  std::string about;
  double y = kTop;
  for (const NodeFacts& node : nodes) {
    y = add_node(node, y, most, &body);
    about += fmt::format("{} over {}: ", node.name, node.partition);
    for (const SnapFacts& snap : node.snaps) {
      about += fmt::format("{}, {}, {}; ", snap.name, snap.about, holds_text(snap));
    }
    if (node.snaps.empty()) about += "no snaps; ";
  }
  if (nodes.empty()) {
    body += svg_text(kLeft, y + 10, "no nodes", {12, kFaint});
    y += 30;
  }
  return svg_file(kWidth, y + 8, "Snaps, and what each holds", about, body);
}

}  // namespace snbf
