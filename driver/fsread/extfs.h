// SPDX-License-Identifier: GPL-2.0-only
// The superblock that all of the ext family share, and who may read what it describes.
//
// The family shares one magic number, but not one layout. Read by the wrong rules, blocks in use
// look free, and a snap loses them in silence. So the reader of ext2 and ext3 sees only what its
// rules fit; the reader of ext4 sees what it understands of the rest; whatever has a feature that
// nobody here knows is left alone, and every chunk then counts as used.
//
// What a crash has left is told by the journal's own flag. Without a journal nothing tells: bitmaps that
// never came to the disk look like any others, and the state in the superblock says "not unmounted" also of a
// file system that is mounted and frozen, whose bitmaps are whole. Such a one is believed in both cases; after
// a crash it is to be checked before it is snapped.
#pragma once

#include "fsread/reader.h"

namespace snbf {

struct ExtSuper {
  static constexpr u32 kBytes = 1024;  // at this offset, too

  enum Incompat : u32 {
    kFileType = 0x2,
    kNeedsRecovery = 0x4,
    kMetaBlockGroups = 0x10,
    kExtents = 0x40,
    k64Bit = 0x80,
    kMultiMount = 0x100,
    kFlexGroups = 0x200,
    kXattrInodes = 0x400,
    kDirData = 0x1000,
    kChecksumSeed = 0x2000,
    kLargeDir = 0x4000,
    kInlineData = 0x8000,
    kEncrypt = 0x10000,
    kCaseFold = 0x20000,
  };
  enum RoCompat : u32 {
    kSparseSuper = 0x1,
    kGroupChecksums = 0x10,
    kBigAlloc = 0x200,
    kMetadataChecksums = 0x400,
  };
  static constexpr u32 kSparseSuper2 = 0x200;  // a compatible feature

  u16 magic;
  u64 blocks_count;
  u32 first_data_block;
  u32 log_block_size;    // log2 of the size in KiB
  u32 log_cluster_size;  // the same; a block's unless kBigAlloc is set
  u32 blocks_per_group;
  u32 clusters_per_group;
  u32 inodes_per_group;
  u32 inode_size;
  u32 compat;
  u32 incompat;
  u32 ro_compat;
  u32 reserved_gdt_blocks;  // behind each copy of the descriptors
  u32 desc_size;            // of a group descriptor, in bytes
  u32 first_meta_bg;        // the first block of descriptors that lies in its own groups
  u32 backup_groups[2];     // with kSparseSuper2
  u32 checksum_seed;        // of everything that carries a CRC-32C

  bool is_ext() const { return magic == 0xEF53; }
  bool has(Incompat feature) const { return (incompat & feature) != 0; }
  bool has(RoCompat feature) const { return (ro_compat & feature) != 0; }
};

// From the 1024 bytes of a superblock.
ExtSuper ext_super_at(const u8* bytes);

// Who reads a file system; `why` says why it is not the reader of ext2 and ext3.
struct ExtVerdict {
  enum class Reader { Ext2, Ext4, Nobody } reader;
  const char* why;
};
ExtVerdict judge_ext(const ExtSuper& super);

// The ext4 reader's claim on a device. A device that cannot be read is nobody's. A line says why
// nobody's. May sleep.
Claim ext4_reader_claim(plat_bdev* bdev);

}  // namespace snbf
