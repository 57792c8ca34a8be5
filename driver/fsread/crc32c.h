// SPDX-License-Identifier: GPL-2.0-only
// The checksums of today's file systems: CRC-32C, and ext4's older CRC-16. Any context.
#pragma once

#include "base/types.h"

namespace snbf {

// The register goes in and comes out as it is: start with ~0, invert at the end where a format
// does.
u32 crc32c(u32 value, const u8* data, size_t bytes);
u16 crc16(u16 value, const u8* data, size_t bytes);

}  // namespace snbf
