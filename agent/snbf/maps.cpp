// SPDX-License-Identifier: GPL-2.0-only
#include "maps.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "sizes.h"

namespace snbf {

namespace {

constexpr uint32_t kOrderMax = 7;  // 128 x 128 cells
constexpr uint32_t kCellPixels = 4;
constexpr uint32_t kMargin = 12;

std::string escape_xml(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == '&')
      out += "&amp;";
    else if (c == '"')
      out += "&quot;";
    else
      out += c;
  }
  return out;
}

// From pale to strong; a cell with any change stands out from one with none.
std::string colour_of(double share) {
  const double t = 0.25 + 0.75 * std::sqrt(share);
  const auto mix = [t](int pale, int strong) {
    return static_cast<int>(std::lround(pale + (strong - pale) * t));
  };
  return fmt::format("#{:02x}{:02x}{:02x}", mix(253, 178), mix(208, 24), mix(162, 43));
}

}  // namespace

std::string strip(const Extents& extents, size_t width, bool unicode) {
  static constexpr const char* kBlocks[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  static constexpr const char* kPlain[] = {".", "-", "-", "=", "=", "+", "+", "*", "#"};
  std::string out;
  for (double share : density(extents, width)) {
    const int step = share == 0 ? 0 : std::clamp(static_cast<int>(std::lround(share * 8)), 1, 8);
    out += unicode ? kBlocks[step] : kPlain[step];
  }
  return out;
}

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

std::string hilbert_svg(const Extents& extents, const std::string& title) {
  uint32_t order = 1;
  while (order < kOrderMax && (uint64_t{1} << (2 * order)) < extents.extent_cnt()) ++order;
  const uint32_t side = 1u << order;
  const uint32_t cell = kCellPixels * (1u << (kOrderMax - order));
  const uint32_t plot = side * cell;
  const std::vector<double> shares = density(extents, uint64_t{side} * side);
  const std::string caption = fmt::format(
      "{}: {} of {} extents changed ({} of {})", title, extents.count(), extents.extent_cnt(),
      show_size(extents.covered_bytes()), show_size(extents.dev_size()));
  std::string out = fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
      "viewBox=\"0 0 {0} {1}\" shape-rendering=\"crispEdges\">\n<title>{2}</title>\n"
      "<rect width=\"{0}\" height=\"{1}\" fill=\"#ffffff\"/>\n"
      "<rect x=\"{3}\" y=\"{3}\" width=\"{4}\" height=\"{4}\" fill=\"#eef1f4\"/>\n",
      plot + 2 * kMargin, plot + 2 * kMargin + 24, escape_xml(caption), kMargin, plot);
  for (size_t i = 0; i < shares.size(); ++i) {
    if (shares[i] == 0) continue;
    const Point2 at = hilbert(order, i);
    out +=
        fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill=\"{}\"/>\n",
                    kMargin + at.x * cell, kMargin + at.y * cell, cell, cell, colour_of(shares[i]));
  }
  out += fmt::format(
      "<text x=\"{}\" y=\"{}\" font-family=\"sans-serif\" font-size=\"13\" "
      "fill=\"#222\">{}</text>\n"
      "</svg>\n",
      kMargin, plot + kMargin + 22, escape_xml(caption));
  return out;
}

}  // namespace snbf
