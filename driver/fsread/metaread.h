// SPDX-License-Identifier: GPL-2.0-only
// Reads of a file system's metadata in long runs: many pages are on their way at once.
#pragma once

#include "base/types.h"
#include "platform/block.h"

namespace snbf {

// Reads `bytes` from byte `offset` of the device, whatever its block size. 0, -EIO (also for a
// range that leaves the device) or -ENOMEM; the buffer then holds anything. Logs nothing. Sleeps.
int read_metadata(plat_bdev* bdev, void* to, u64 offset, u64 bytes);

}  // namespace snbf
