// SPDX-License-Identifier: GPL-2.0-only
// Drawings of where a device changed.
#pragma once

#include <string>

#include "extents.h"

namespace snbf {

// `width` characters, from the start of the device to its end: the fuller, the more changed. A
// slice with any change at all is never blank.
std::string strip(const Extents& extents, size_t width, bool unicode);

struct Point2 {
  uint32_t x;
  uint32_t y;
};
// The cell at `distance` along a Hilbert curve over a square of side 2^order.
Point2 hilbert(uint32_t order, uint64_t distance);

// The device along a Hilbert curve: what lies close on it lies close in the picture.
std::string hilbert_svg(const Extents& extents, const std::string& title);

}  // namespace snbf
