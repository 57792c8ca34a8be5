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

struct Attached {
  snbf_info node;            // not yet started
  std::string distrust;      // why every extent counts as changed, or empty
  int minor_before = -1;     // the one that the name had last, where it got another
  std::string minor_reason;  // and how that came, in words
};

// "data had the minor 3 before and gets 4: 3 belongs to ..."; empty where it is as it was.
std::string minor_text(const Attached& made);

// Throws what stands against it, with who holds the partition.
Attached attach_node(const Driver& driver, const AttachWish& wish);

}  // namespace snbf
