// SPDX-License-Identifier: GPL-2.0-only
// Module parameters.
#pragma once

#include "platform/entry.h"

namespace snbf {

constexpr int kMinorLimit = (1 << 20) - 1;  // what a device number has room for

// Compared unsigned: a negative minor is above every maximum.
inline bool is_minor_in_table(unsigned minor) {
  return minor <= static_cast<unsigned>(snbf_max_blk_minor);
}

}  // namespace snbf
