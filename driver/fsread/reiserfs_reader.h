// SPDX-License-Identifier: GPL-2.0-only
// Reads which blocks a ReiserFS of format 3.6 uses: its block bitmaps. Everything may sleep.
#pragma once

#include "base/types.h"
#include "platform/block.h"

namespace snbf {
struct ReiserfsReader;
}

// Null when the device holds no such file system, one that cannot be read, or one whose superblock
// and bitmaps disagree. Given back with reiserfs_reader_destroy.
snbf::ReiserfsReader* reiserfs_reader_init(plat_bdev* bdev, snbf::u32* block_size);
// Bit k of `bits` says whether a block of chunk first + k is in use. 0 or more, or a negative
// error. Not for two callers at once: the reader keeps the last bitmap.
int reiserfs_reader_read(snbf::ReiserfsReader* reader, snbf::u64 first, snbf::u32 chunk_size,
                         snbf::u8* bits, snbf::u32 chunk_count);
// Always 0; null is allowed.
int reiserfs_reader_destroy(snbf::ReiserfsReader* reader);
