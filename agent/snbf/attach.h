// SPDX-License-Identifier: GPL-2.0-only
// The laying of a node over a partition, as `attach` and `up` have it.
#pragma once

#include <cstdint>
#include <string>

#include "driver.h"

namespace snbf {

struct AttachWish {
  std::string partition;  // a device file
  std::string name;
  std::string bitmaps;  // a directory that is there
  uint32_t extent_size = 65536;
  int minor = -1;      // negative: the one it had last, or a free one
  bool adopt = false;  // take over bitmap files that belong to another partition
};

// The node, not yet started; `distrust` is why every extent counts as changed, or empty. Throws
// what stands against it, with who holds the partition.
snbf_info attach_node(const Driver& driver, const AttachWish& wish, std::string* distrust);

}  // namespace snbf
