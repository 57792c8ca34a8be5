// SPDX-License-Identifier: GPL-2.0-only
// Which file systems of the ext family the rules of the ext2/ext3 reader fit.
//
// All of the family share one magic number, but not one layout. Read by the wrong rules, blocks in
// use look free, and a snap loses them in silence; so whatever is not known to fit is left alone,
// and every chunk then counts as used.
#pragma once

#include "base/types.h"
#include "platform/block.h"

namespace snbf {

// What of a superblock decides.
struct ExtFeatures {
  u32 log_block_size;
  u32 blocks_per_group;
  u32 incompat;
  u32 ro_compat;
};

// Why the ext2/ext3 reader would misread such a file system, or null.
const char* why_ext2_misreads(const ExtFeatures& features);

// The device holds one that would be misread, or nobody can tell; a line says why. May sleep.
bool extfs_is_misread(plat_bdev* bdev);

}  // namespace snbf
