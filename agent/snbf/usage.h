// SPDX-License-Identifier: GPL-2.0-only
// Which extents of a node hold something, as a snap of it shows.
//
// The driver's map of used chunks says what the file system uses. It speaks for the file system
// alone: what lies behind its end, up to the partition's, may be anybody's and counts as used,
// whatever the map says there. A snap does not hold that part: it shows it as it is now.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "driver.h"

namespace snbf {

struct Usage {
  Extents used;  // in the shape of the node's bitmaps
  std::string
      why_all;  // why every extent counts as used: a sentence. Empty: some are known as free
};

// `device`: where the started snap's image can be read. Throws if the driver refuses.
Usage usage_of(const Driver& driver, const snbf_info& node, const snbf_info& snap,
               const std::string& device);

// What the map of a device of that shape says: one bit for `unit` bytes, a multiple or a part of an
// extent, and everything from byte `fs_end` on.
Extents used_extents(const Extents& shape, const std::vector<uint8_t>& map, uint64_t unit,
                     uint64_t fs_end);

}  // namespace snbf
