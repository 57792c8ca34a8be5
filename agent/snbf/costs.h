// SPDX-License-Identifier: GPL-2.0-only
// What a backup would copy at other extent sizes. A bitmap can be made coarser, never finer: the
// curve begins at the node's own size.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "extents.h"
#include "output.h"

namespace snbf {

struct Cost {
  uint64_t extent_size = 0;  // bytes
  uint64_t extents = 0;      // that changed
  uint64_t bytes = 0;        // that a backup would copy
  uint64_t memory = 0;       // bytes of the two bitmaps
};

// Each size doubles the one before, up to 64 MiB or to an extent that is the whole device.
std::vector<Cost> cost_curve(const Extents& finest);

// A table of at most 80 columns.
std::string costs_text(uint64_t dev_size, const std::vector<Cost>& costs, bool unicode);
Json costs_json(const std::vector<Cost>& costs);
// `what`: "since the last backup".
std::string costs_svg(const std::string& node, const std::string& what, uint64_t dev_size,
                      const std::vector<Cost>& costs);

}  // namespace snbf
