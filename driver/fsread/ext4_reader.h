// SPDX-License-Identifier: GPL-2.0-only
// Reads which blocks a file system of the ext family uses where the rules of ext2 and ext3 do not
// fit: group descriptors of any size, block counts above 2^32, groups without a bitmap on the disk,
// flexible groups, clusters, meta block groups, groups and blocks of any size.
//
// Checksums are verified where the file system has them. A group whose bitmap cannot be trusted
// counts as used as a whole, and so does everything behind the file system's end. Everything may
// sleep.
#pragma once

#include "base/types.h"
#include "platform/block.h"

namespace snbf {
struct Ext4Reader;
}

// Null when the device holds no such file system, or one that cannot be read. Given back with
// ext4_reader_destroy.
snbf::Ext4Reader* ext4_reader_init(plat_bdev* bdev, snbf::u32* block_size);
// Bit k of `bits` says whether a block of chunk first + k is in use. 0, or a negative error. Not
// for two callers at once: the reader keeps the bitmaps that it read last.
int ext4_reader_read(snbf::Ext4Reader* reader, snbf::u64 first, snbf::u32 chunk_size,
                     snbf::u8* bits, snbf::u32 chunk_count);
// Always 0; null is allowed.
int ext4_reader_destroy(snbf::Ext4Reader* reader);
