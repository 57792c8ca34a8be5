// SPDX-License-Identifier: GPL-2.0-only
#include "maps.h"

#include <algorithm>
#include <cmath>

namespace snbf {

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

}  // namespace snbf
