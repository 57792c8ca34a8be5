// SPDX-License-Identifier: GPL-2.0-only
// The checksum of the bitmap files: CRC-32 of IEEE 802.3, reflected.
#pragma once

#include "base/types.h"

// Runs `length` bytes (none when it is 0 or less) through the register and answers it. The caller
// starts the register at 0xFFFFFFFF; it is not inverted at the end.
snbf::u32 snbf_crc32(const void* data, int length, snbf::u32* checksum);
