// SPDX-License-Identifier: GPL-2.0-only
// Reads which blocks an ext2 or ext3 file system uses: the bitmap of each block group.
//
// Groups are walked at the stride of what their bitmap block can hold, 8 x block size, which is the
// usual layout. File systems of any other are kept away by extfs.h. Everything may sleep.
#pragma once

#include "base/types.h"
#include "platform/block.h"

namespace snbf {
struct Ext2Reader;
}

// Null when the device holds no such file system, or one that cannot be read. Given back with
// ext2_reader_destroy.
snbf::Ext2Reader* ext2_reader_init(plat_bdev* bdev, snbf::u32* block_size);
// Bit k of `bits` says whether a block of chunk first + k is in use. 0 or more, or a negative
// error. Not for two callers at once: the reader keeps the bitmap of the last group.
int ext2_reader_read(snbf::Ext2Reader* reader, snbf::u64 first, snbf::u32 chunk_size,
                     snbf::u8* bits, snbf::u32 chunk_count);
// Always 0; null is allowed.
int ext2_reader_destroy(snbf::Ext2Reader* reader);
