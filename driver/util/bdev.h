// SPDX-License-Identifier: GPL-2.0-only
// Block devices by number, and small synchronous reads from them. Everything may sleep.
#pragma once

#include "base/types.h"
#include "platform/block.h"

// Null on any failure.
plat_bdev* snbf_open_bdev(plat_devt device, int mode, plat_open_kind kind, void* holder);
// Kind, mode and holder as at the opening.
int snbf_close_bdev(plat_bdev* bdev, plat_open_kind kind, int mode, void* holder);
// 1 while a file system is mounted on it, else 0.
int snbf_is_mounted(plat_bdev* bdev);
// Reads `count` blocks of `block_bytes` (at most a page) from block `first` on, one after the
// other; of a device with larger blocks, each with what stands around it. 0, -EINVAL, -ENOMEM or
// -EIO; the blocks before one that fails are in the buffer.
int snbf_bread(plat_bdev* bdev, void* to, int block_bytes, snbf::s64 first, int count);
