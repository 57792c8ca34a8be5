// SPDX-License-Identifier: GPL-2.0-only
#include "costs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "layout.h"
#include "sizes.h"
#include "svg.h"

namespace snbf {

namespace {

constexpr uint64_t kSizeMax = 64 << 20;
constexpr size_t kBarWidth = 24;
constexpr size_t kNameShown = 40;

Extents twice_as_coarse(const Extents& fine) {
  const uint64_t count = fine.extent_cnt() / 2 + fine.extent_cnt() % 2;
  Extents coarse(count, fine.extent_size() * 2, fine.dev_size());
  for (const Run& run : fine.runs()) {
    for (uint64_t extent = run.first / 2; extent <= (run.first + run.count - 1) / 2; ++extent) {
      coarse.set(extent);
    }
  }
  return coarse;
}

double share(uint64_t part, uint64_t whole) {
  return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
}

std::string bar(double part, bool unicode) {
  std::string out;
  const auto full = static_cast<size_t>(std::lround(part * kBarWidth));
  for (size_t i = 0; i < std::max<size_t>(full, part > 0 ? 1 : 0); ++i) out += unicode ? "█" : "#";
  return out;
}

constexpr double kLeft = 84;
constexpr double kTop = 88;
constexpr double kWidth = 760;
constexpr double kHeight = 440;
constexpr double kBottom = kHeight - 84;
constexpr double kRight = kWidth - 36;

// The scale ends with a round number of 1024s, so that its marks are sizes as people know them.
uint64_t scale_end(uint64_t most) {
  uint64_t step = 1024;
  while (step * 4 < most) step *= 2;
  return step * 4;
}

class Chart {
 public:
  Chart(const std::vector<Cost>& costs)
      : costs_(costs), end_(scale_end(costs.empty() ? 0 : costs.back().bytes)) {}

  std::string text() const { return grid() + curve() + points(); }

 private:
  double x(size_t i) const {
    const double steps = static_cast<double>(std::max<size_t>(2, costs_.size()) - 1);
    return kLeft + 30 + (kRight - kLeft - 60) * static_cast<double>(i) / steps;
  }
  double y(uint64_t bytes) const { return kBottom - (kBottom - kTop) * share(bytes, end_); }

  std::string grid() const {
    std::string out;
    for (uint64_t i = 0; i <= 4; ++i) {
      const uint64_t bytes = end_ / 4 * i;
      out += svg_line(kLeft, y(bytes), kRight, y(bytes), i == 0 ? kFaint : kLine);
      out += svg_text(kLeft - 10, y(bytes) + 4, show_size(bytes), {12, kFaint, "end"});
    }
    return out;
  }

  std::string curve() const {
    std::string path;
    for (size_t i = 0; i < costs_.size(); ++i) {
      path += fmt::format("{}{:.1f} {:.1f}", i == 0 ? "M" : "L", x(i), y(costs_[i].bytes));
    }
    if (costs_.empty()) return path;
    const std::string area = path + fmt::format("L{:.1f} {:.1f}L{:.1f} {:.1f}z",
                                                x(costs_.size() - 1), kBottom, x(0), kBottom);
    return fmt::format(
        "<path d=\"{}\" fill=\"{}\" fill-opacity=\"0.12\"/>\n"
        "<path d=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"2.5\" "
        "stroke-linejoin=\"round\"/>\n",
        area, kBlue, path, kBlue);
  }

  std::string points() const {
    std::string out;
    for (size_t i = 0; i < costs_.size(); ++i) {
      const bool own = i == 0;
      const double up = y(costs_[i].bytes);
      out += svg_circle(x(i), up, own ? 6.5 : 4.5, own ? kOrange : kBlue);
      // The curve never falls: on this side of a point it is below.
      out += svg_text(x(i) - 4, up - 10, show_size(costs_[i].bytes),
                      {11, own ? kOrange : kInk, "end", own});
      out += svg_text(x(i), kBottom + 19, show_size(costs_[i].extent_size),
                      {12, own ? kOrange : kInk, "middle", own});
      out += svg_text(x(i), kBottom + 36, show_size(costs_[i].memory), {10, kFaint, "middle"});
    }
    return out;
  }

  const std::vector<Cost>& costs_;
  uint64_t end_;
};

}  // namespace

std::vector<Cost> cost_curve(const Extents& finest) {
  std::vector<Cost> costs;
  for (Extents at = finest; at.extent_size() != 0; at = twice_as_coarse(at)) {
    costs.push_back({at.extent_size(), at.count(), at.covered_bytes(), 2 * at.bytes().size()});
    if (at.extent_cnt() <= 1 || at.extent_size() >= kSizeMax) break;
  }
  return costs;
}

std::string costs_text(uint64_t dev_size, const std::vector<Cost>& costs, bool unicode) {
  const uint64_t most = costs.empty() ? 0 : costs.back().bytes;
  TableRows rows;
  for (const Cost& cost : costs) {
    rows.push_back({show_size(cost.extent_size), std::to_string(cost.extents),
                    show_size(cost.bytes),
                    fmt::format("{:.1f} %", 100 * share(cost.bytes, dev_size)),
                    show_size(cost.memory), bar(share(cost.bytes, most), unicode)});
  }
  return table_text({{"EXTENT", true},
                     {"EXTENTS", true},
                     {"COPIED", true},
                     {"OF ALL", true},
                     {"BITMAPS", true},
                     {""}},
                    rows, true, 0, unicode);
}

Json costs_json(const std::vector<Cost>& costs) {
  Json rows = Json::array();
  for (const Cost& cost : costs) {
    rows.push_back({{"extent_size", cost.extent_size},
                    {"changed_extents", cost.extents},
                    {"copied_bytes", cost.bytes},
                    {"bitmaps_bytes", cost.memory}});
  }
  return rows;
}

std::string costs_svg(const std::string& node, const std::string& what, uint64_t dev_size,
                      const std::vector<Cost>& costs) {
  const std::string title = shortened(node, kNameShown, true) + ": what the extent size costs";
  const std::string own =
      costs.empty()
          ? "nothing is known"
          : fmt::format("{} at {}, the node's own size; {} at {}", show_size(costs.front().bytes),
                        show_size(costs.front().extent_size), show_size(costs.back().bytes),
                        show_size(costs.back().extent_size));
  const std::string about = fmt::format("A backup of what changed {} copies {}. The device has {}.",
                                        what, own, show_size(dev_size));
  const std::string body =
      svg_text(32, 36, title, {19, kInk, "start", true}) +
      svg_text(32, 58, "What a backup would copy of what changed " + what + ", by extent size",
               {13, kFaint}) +
      Chart(costs).text() + svg_text(kLeft - 10, kBottom + 19, "extent size", {11, kFaint, "end"}) +
      svg_text(kLeft - 10, kBottom + 36, "bitmaps", {10, kFaint, "end"}) +
      svg_text(32, kHeight - 14,
               "Orange: the node's own size. Smaller sizes are known only to a node that is "
               "attached with them.",
               {11, kFaint});
  return svg_file(kWidth, kHeight, title, about, body);
}

}  // namespace snbf
