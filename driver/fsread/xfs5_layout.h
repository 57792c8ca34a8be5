// SPDX-License-Identifier: GPL-2.0-only
// The structures of an XFS of version 4 or 5 as bytes, and what they must agree with. No I/O.
#pragma once

#include "base/types.h"

namespace snbf {

struct XfsSuper {
  static constexpr u32 kBytes = 512;  // that are looked at before the sector size is known

  u32 magic;
  u32 version;
  u32 block_size;
  u32 sector_size;
  u64 blocks;  // of the data device
  u32 ag_blocks;
  u32 ag_count;
  u64 log_start;  // AG << ag_block_log | block in it; 0: not on this device
  u32 log_blocks;
  u32 ag_block_log;
  u32 ro_compat;  // of version 5, as the next
  u32 incompat;
  u8 uuid[16];  // that the metadata carry

  bool is_xfs() const { return magic == 0x58465342; }
  bool has_checksums() const { return version >= 5; }
  u64 ag_start(u32 ag) const { return u64{ag} * ag_blocks; }
  u64 log_start_block() const {
    return (log_start >> ag_block_log) * ag_blocks + (log_start & ((u64{1} << ag_block_log) - 1));
  }
  // The last one may be short.
  u32 ag_length(u32 ag) const {
    const u64 left = blocks - ag_start(ag);
    return left < ag_blocks ? static_cast<u32>(left) : ag_blocks;
  }
};

XfsSuper xfs_super_at(const u8* bytes);
// Null, or a feature that nobody here knows.
const char* xfs_unknown_feature(const XfsSuper& super);
// It describes something that could lie on a device of that many bytes.
bool xfs_super_is_sane(const XfsSuper& super, u64 device_bytes);

// The checksum at `at` of a structure of `bytes` holds; or the version has none.
bool xfs_checksum_holds(const XfsSuper& super, const u8* data, u32 bytes, u32 at);

constexpr u32 kXfsSuperChecksumAt = 224;

// The header of an AG's free space, one sector.
struct XfsAgf {
  u32 bno_root;
  u32 bno_level;
  u32 free_blocks;
};
// Null when it is the one of this AG, else what is wrong with it.
const char* take_xfs_agf(const XfsSuper& super, u32 ag, const u8* bytes, XfsAgf* agf);

// A block of a free-space tree by block number.
struct XfsTreeBlock {
  const u8* bytes;
  u32 block_size;
  u32 header_bytes;

  u32 level() const;
  u32 records() const;
  u32 right_sibling() const;
  u32 start(u32 record) const;
  u32 count(u32 record) const;
  u32 child(u32 record) const;

  static constexpr u32 kNoSibling = 0xFFFFFFFF;
};
XfsTreeBlock xfs_tree_block(const XfsSuper& super, const u8* bytes);
// Null when it is block `number` of this AG's tree, else what is wrong with it.
const char* judge_xfs_tree_block(const XfsSuper& super, u32 ag, u32 number, const u8* bytes);

}  // namespace snbf
