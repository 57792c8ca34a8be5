// SPDX-License-Identifier: GPL-2.0-only
#include "watch.h"

#include <fmt/format.h>

#include "layout.h"
#include "maps.h"
#include "reasons.h"
#include "sizes.h"

namespace snbf {

namespace {

constexpr size_t kLabel = 11;

std::string rate_text(const std::optional<double>& rate) {
  return rate ? show_size(static_cast<uint64_t>(*rate)) + "/s" : "-";
}

double percent(uint64_t part, uint64_t whole) {
  return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

std::string line(const char* label, const std::string& text, size_t width, bool unicode) {
  return fmt::format("{:<{}}", label, kLabel) + shortened(text, width - kLabel, unicode) + "\n";
}

std::string heading(const NodeFacts& node, size_t width, bool unicode) {
  const std::string left =
      fmt::format("{}  {}{}", node.name, node.started ? "started" : "stopped, and tracks nothing",
                  node.opens ? fmt::format(", open {} times", node.opens) : "");
  const std::string right = fmt::format("{}, {}", node.partition, show_size(node.size));
  const std::string shown_left = shortened(left, width, unicode);
  const size_t room = width - shown_width(shown_left);
  if (room < 3) return shown_left + "\n";
  const std::string shown = shortened(right, room - 2, unicode);
  return shown_left + std::string(room - shown_width(shown), ' ') + shown + "\n";
}

std::string snaps_text(const NodeFacts& node) {
  uint64_t held = 0;
  size_t lost = 0;
  for (const SnapFacts& snap : node.snaps) {
    held += snap.cow_bytes;
    lost += snap.state == "lost" || snap.state == "dead";
  }
  const SnapFacts& newest = node.snaps.back();
  std::string text = fmt::format("{} hold {}, {} free", node.snaps.size(), show_size(held),
                                 show_size(newest.cow_free_bytes));
  if (newest.full_in_s) text += ", full in " + show_duration(*newest.full_in_s);
  if (lost != 0) text += fmt::format(", {} lost", lost);
  return text;
}

std::string next_text(const NodeFacts& node) {
  if (node.unfinished) return "one is under way, or was cut off";
  if (node.next_full.empty()) return "the next is incremental";
  return "the next is full: " + reason_text(node.next_full);
}

}  // namespace

Rates rates_between(const NodeFacts& before, const NodeFacts& now, double seconds) {
  const auto rate = [seconds](uint64_t from, uint64_t to) -> std::optional<double> {
    if (to < from || seconds <= 0) return std::nullopt;
    return static_cast<double>(to - from) / seconds;
  };
  Rates rates;
  if (before.uuid != now.uuid) return rates;
  if (before.written_bytes && now.written_bytes) {
    rates.written = rate(*before.written_bytes, *now.written_bytes);
  }
  rates.marked = rate(before.incr.extents.covered_bytes(), now.incr.extents.covered_bytes());
  return rates;
}

std::string watch_panel(const NodeFacts& node, const Rates& rates, size_t width, bool unicode) {
  const uint64_t changed = node.incr.extents.covered_bytes();
  const std::string since =
      node.last_backup ? "the backup of " + show_time(node.last_backup) : "the last backup";
  std::string out = heading(node, width, unicode);
  out += "[" + strip(node.incr.extents, width - 2, unicode) + "]\n";
  out += line(
      "changed",
      fmt::format("{} ({:.1f} %) since {}", show_size(changed), percent(changed, node.size), since),
      width, unicode);
  out += line(
      "writes",
      fmt::format("{}, new in the bitmap {}", rate_text(rates.written), rate_text(rates.marked)),
      width, unicode);
  if (!node.snaps.empty()) out += line("snaps", snaps_text(node), width, unicode);
  return out + line("backup", next_text(node), width, unicode);
}

std::string watch_line(const NodeFacts& node, const Rates& rates, int64_t time) {
  std::string out = fmt::format("{} {} {} changed {} written {} marked {}", show_time(time),
                                node.name, node.started ? "started" : "stopped",
                                show_size(node.incr.extents.covered_bytes()),
                                rate_text(rates.written), rate_text(rates.marked));
  if (!node.snaps.empty()) out += " snaps " + snaps_text(node);
  return out + "\n";
}

Json watch_json(const NodeFacts& node, const Rates& rates, int64_t time) {
  const auto number = [](const auto& value) { return value ? Json(*value) : Json(nullptr); };
  Json snaps = Json::array();
  for (const SnapFacts& snap : node.snaps) {
    snaps.push_back({{"name", snap.name},
                     {"state", snap.state},
                     {"cow_data_bytes", snap.cow_bytes},
                     {"cow_free_bytes", snap.cow_free_bytes},
                     {"cow_full_in_seconds", number(snap.full_in_s)}});
  }
  return {{"time", show_time(time)},
          {"name", node.name},
          {"started", node.started},
          {"opens", node.opens},
          {"changed_bytes", node.incr.extents.covered_bytes()},
          {"written_bytes_per_second", number(rates.written)},
          {"marked_bytes_per_second", number(rates.marked)},
          {"next_backup_full_because", node.next_full},
          {"snap_list", snaps}};
}

}  // namespace snbf
