// SPDX-License-Identifier: GPL-2.0-only
// Reads which blocks an XFS uses where the rules of version 4 with 512-byte sectors do not fit:
// version 5 with its longer and checksummed tree blocks, larger sectors, larger blocks.
//
// A chunk is free only where free extents cover it, and everything behind the file system's end
// counts as used. Everything may sleep.
#pragma once

#include "fsread/reader.h"

namespace snbf {

struct Xfs5Reader;

// The claim on a device. A line says why nobody may read one. May sleep.
Claim xfs5_reader_claim(plat_bdev* bdev);

}  // namespace snbf

// Null when the device holds no XFS or one that cannot be read. Given back with
// xfs5_reader_destroy.
snbf::Xfs5Reader* xfs5_reader_init(plat_bdev* bdev, snbf::u32* block_size);
// Bit k of `bits` says whether a block of chunk first + k is in use. 0, or a negative error. Not
// for two callers at once: the reader keeps the block of the tree that it looks at.
int xfs5_reader_read(snbf::Xfs5Reader* reader, snbf::u64 first, snbf::u32 chunk_size,
                     snbf::u8* bits, snbf::u32 chunk_count);
// Always 0; null is allowed.
int xfs5_reader_destroy(snbf::Xfs5Reader* reader);
