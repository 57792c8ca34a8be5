// SPDX-License-Identifier: GPL-2.0-only
// Reads which blocks an XFS of version 4 uses: the free-space tree by block number of each
// allocation group (AG).
//
// A chunk is free only where one free extent covers it. Everything may sleep.
#pragma once

#include "base/types.h"
#include "platform/block.h"

namespace snbf {
struct XfsReader;
}

// Null when the device holds no XFS or one that cannot be read. Given back with
// xfs_reader_destroy.
snbf::XfsReader* xfs_reader_init(plat_bdev* bdev, snbf::u32* block_size);
// Bit k of `bits` says whether chunk first + k is in use. 0, or a negative error. Not for two
// callers at once: the reader keeps the block of the tree that it looks at.
int xfs_reader_read(snbf::XfsReader* reader, snbf::u64 first, snbf::u32 chunk_size, snbf::u8* bits,
                    snbf::u32 chunk_count);
// Always 0; null is allowed.
int xfs_reader_destroy(snbf::XfsReader* reader);
// Descends from block `node` of the AG that begins at block `ag_start` to the leaf for block
// `target` of the AG. 0 with the leaf in the reader's buffer, or a negative error.
int xfs_find_leaf(snbf::XfsReader* reader, snbf::u32 target, snbf::u64 ag_start, snbf::u32 node);
