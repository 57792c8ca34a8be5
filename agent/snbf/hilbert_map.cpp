// SPDX-License-Identifier: GPL-2.0-only
#include "hilbert_map.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include "layout.h"
#include "sizes.h"
#include "svg.h"

namespace snbf {

namespace {

constexpr uint32_t kOrderMax = 7;  // 128 x 128 cells
constexpr uint32_t kPlot = 4u << kOrderMax;
constexpr double kMargin = 32;
constexpr double kTop = 92;
constexpr double kSwatch = 14;
constexpr size_t kNameShown = 26;

constexpr const char* kFree = "#f1f3f4";
constexpr const char* kUnknown = "#dfe5ea";      // not changed; used or free
constexpr const char* kChangedFree = "#f5d76e";  // changed, and in no file
constexpr std::array<const char*, 3> kUsed = {"#d3e4f2", "#b1cfe8", "#8db9dd"};
constexpr std::array<const char*, 4> kChanged = {"#f4a259", "#e5741f", "#c8500a", "#8a2f02"};

// A share above 0 as one of the shades; the square root keeps small shares apart.
template <size_t Count>
const char* shade(const std::array<const char*, Count>& shades, double share) {
  const auto step = static_cast<size_t>(std::sqrt(share) * Count);
  return shades[std::min(step, Count - 1)];
}

struct Shares {
  std::vector<double> kept;  // changed, and in use
  std::vector<double> changed;
  std::vector<double> used;  // empty: not known
};

Shares shares_of(const DeviceMap& map, size_t cells) {
  Shares shares;
  shares.changed = density(map.changed, cells);
  if (!map.used) {
    shares.kept = shares.changed;
    return shares;
  }
  shares.used = density(*map.used, cells);
  Extents unused = map.changed;
  unused.subtract(*map.used);
  Extents kept = map.changed;
  kept.subtract(unused);
  shares.kept = density(kept, cells);
  return shares;
}

const char* colour_of(const Shares& shares, size_t cell) {
  if (shares.kept[cell] > 0) return shade(kChanged, shares.kept[cell]);
  if (shares.changed[cell] > 0) return kChangedFree;
  if (shares.used.empty()) return kUnknown;
  return shares.used[cell] > 0 ? shade(kUsed, shares.used[cell]) : kFree;
}

// One path for each colour, of runs along the rows: a quarter of what squares would take.
std::string squares(const DeviceMap& map, uint32_t order) {
  const uint32_t side = 1u << order;
  const uint32_t cell = kPlot / side;
  const Shares shares = shares_of(map, size_t{side} * side);
  std::vector<std::string> grid(size_t{side} * side);
  for (size_t i = 0; i < grid.size(); ++i) {
    const Point2 at = hilbert(order, i);
    grid[size_t{at.y} * side + at.x] = colour_of(shares, i);
  }
  std::map<std::string, std::string> paths;
  for (uint32_t y = 0; y < side; ++y) {
    for (uint32_t x = 0, end; x < side; x = end) {
      const std::string& colour = grid[size_t{y} * side + x];
      for (end = x + 1; end < side && grid[size_t{y} * side + end] == colour;) ++end;
      paths[colour] += fmt::format("M{} {}h{}v{}h-{}z", x * cell, y * cell, (end - x) * cell, cell,
                                   (end - x) * cell);
    }
  }
  std::string out = fmt::format(
      "<g transform=\"translate({:.0f} {:.0f})\" shape-rendering=\"crispEdges\">\n", kMargin, kTop);
  for (const auto& [colour, path] : paths) {
    out += fmt::format("<path fill=\"{}\" d=\"{}\"/>\n", colour, path);
  }
  return out + "</g>\n";
}

std::string frame() {
  return fmt::format(
      "<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill=\"none\" stroke=\"{}\"/>\n",
      kMargin - 0.5, kTop - 0.5, kPlot + 1, kPlot + 1, kLine);
}

std::string entry(double x, double y, const std::vector<const char*>& colours, const char* text) {
  std::string out;
  for (const char* colour : colours) {
    out += fmt::format(
        "<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill=\"{}\" stroke=\"{}\" "
        "stroke-width=\"0.5\"/>\n",
        x, y, kSwatch, kSwatch, colour, kFaint);
    x += kSwatch;
  }
  return out + svg_text(x + 8, y + 11.5, text, {12});
}

std::string legend(bool used_known) {
  const double y = kTop + kPlot + 18;
  const double right = kMargin + kPlot / 2.0 + 8;
  const std::vector<const char*> changed(kChanged.begin(), kChanged.end());
  std::string out = entry(kMargin, y, changed, "changed: a little to all of it");
  if (!used_known) return out + entry(right, y, {kUnknown}, "not changed");
  out += entry(right, y, {kUsed.begin(), kUsed.end()}, "in use, not changed");
  out += entry(kMargin, y + 24, {kChangedFree}, "changed, but free: left out of backups");
  return out + entry(right, y + 24, {kFree}, "free");
}

std::string scale(const DeviceMap& map, uint32_t order) {
  const uint64_t cells = uint64_t{1} << (2 * order);
  const std::string near = "neighbours on the device are neighbours here.";
  if (map.changed.extent_cnt() < cells) return "Squares are parts of an extent; " + near;
  return fmt::format("One square is {}; {}", show_size(map.changed.dev_size() / cells), near);
}

std::string whose_map(const DeviceMap& map) {
  if (!map.used) return "What of it is in use, only a started snap can tell.";
  return fmt::format("What is in use: as the snap {} has it.",
                     shortened(map.used_by, kNameShown, true));
}

std::string summary(const DeviceMap& map) {
  const uint64_t covered = map.changed.covered_bytes();
  return fmt::format("{} of {} changed {} ({:.1f} %), in extents of {}", show_size(covered),
                     show_size(map.changed.dev_size()), map.since,
                     100.0 * static_cast<double>(covered) /
                         static_cast<double>(std::max<uint64_t>(1, map.changed.dev_size())),
                     show_size(map.changed.extent_size()));
}

}  // namespace

Point2 hilbert(uint32_t order, uint64_t distance) {
  uint32_t x = 0;
  uint32_t y = 0;
  for (uint64_t side = 1; side < (uint64_t{1} << order); side *= 2) {
    const uint32_t right = 1 & static_cast<uint32_t>(distance / 2);
    const uint32_t up = 1 & static_cast<uint32_t>(distance ^ right);
    if (up == 0) {
      if (right == 1) {
        x = static_cast<uint32_t>(side) - 1 - x;
        y = static_cast<uint32_t>(side) - 1 - y;
      }
      std::swap(x, y);
    }
    x += static_cast<uint32_t>(side) * right;
    y += static_cast<uint32_t>(side) * up;
    distance /= 4;
  }
  return {x, y};
}

std::string hilbert_svg(const DeviceMap& map) {
  uint32_t order = 1;
  while (order < kOrderMax && (uint64_t{1} << (2 * order)) < map.changed.extent_cnt()) ++order;
  const bool used_known = map.used.has_value();
  const double height = kTop + kPlot + (used_known ? 106 : 82);
  const TextStyle small{11, kFaint};
  const std::string title = shortened(map.name, kNameShown, true) + ": what changed, and where";
  const std::string body = svg_text(kMargin, 36, title, {19, kInk, "start", true}) +
                           svg_text(kMargin, 58, summary(map), {13, kFaint}) +
                           svg_text(kMargin, kTop - 7, "▾ the device begins", small) +
                           svg_text(kMargin + kPlot, kTop - 7, "and ends ▾", {11, kFaint, "end"}) +
                           squares(map, order) + frame() + legend(used_known) +
                           svg_text(kMargin, height - 30, scale(map, order), small) +
                           svg_text(kMargin, height - 14, whose_map(map), small);
  const std::string about = summary(map) +
                            ". A square filled along a Hilbert curve from the start of the device, "
                            "top left, to its end, top right. " +
                            scale(map, order) + " " + whose_map(map);
  return svg_file(2 * kMargin + kPlot, height, title, about, body);
}

}  // namespace snbf
