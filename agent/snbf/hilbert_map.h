// SPDX-License-Identifier: GPL-2.0-only
// A device drawn along a Hilbert curve: what lies close on it lies close in the picture.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "extents.h"

namespace snbf {

struct Point2 {
  uint32_t x;
  uint32_t y;
};
// The cell at `distance` along a Hilbert curve over a square of side 2^order.
Point2 hilbert(uint32_t order, uint64_t distance);

struct DeviceMap {
  std::string name;
  std::string since;  // "since the last backup"
  Extents changed;
  // What the file system uses, in the same shape, and the snap that knows it; nothing: nobody does.
  std::optional<Extents> used;
  std::string used_by;
};
std::string hilbert_svg(const DeviceMap& map);

}  // namespace snbf
