// SPDX-License-Identifier: GPL-2.0-only
// Fixed-width names used throughout the driver.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "platform/types.h"

namespace snbf {

using u8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;
using u64 = uint64_t;
using s64 = int64_t;

using AllocMode = plat_alloc_mode;

constexpr u32 kPageBytes = 4096;
constexpr u32 kSectorBytes = 512;
constexpr u32 kPathBytes = 1024;

// Kernel-internal device numbers.
constexpr u32 dev_major(plat_devt device) { return device >> 20; }
constexpr u32 dev_minor(plat_devt device) { return device & 0xFFFFF; }
constexpr plat_devt make_dev(u32 major, u32 minor) { return major << 20 | minor; }

}  // namespace snbf
