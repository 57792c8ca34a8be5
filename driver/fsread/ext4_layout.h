// SPDX-License-Identifier: GPL-2.0-only
// Where things lie in a file system of the ext family, as its superblock says. No I/O.
#pragma once

#include "fsread/extfs.h"

namespace snbf {

struct Ext4Layout {
  ExtSuper super;
  u32 block_size;     // bytes
  u32 cluster_shift;  // log2 of the blocks of a cluster, which is what a bit of a bitmap stands for
  u32 group_count;
  u32 desc_per_block;
  u32 desc_blocks;    // blocks of descriptors
  u32 itable_blocks;  // of a group's inode table

  u64 first_block_of(u32 group) const {
    return super.first_data_block + u64{group} * super.blocks_per_group;
  }
  // The last group may be short.
  u64 end_block_of(u32 group) const {
    const u64 end = first_block_of(group) + super.blocks_per_group;
    return end < super.blocks_count ? end : super.blocks_count;
  }
  u32 clusters_of(u32 group) const {
    const u64 blocks = end_block_of(group) - first_block_of(group);
    return static_cast<u32>((blocks + (u64{1} << cluster_shift) - 1) >> cluster_shift);
  }
  // The block that holds the n-th block of descriptors.
  u64 desc_block(u32 n) const;
  // Blocks at the head of a group for a copy of the superblock and of descriptors.
  u32 base_meta_blocks(u32 group) const;

 private:
  bool has_super(u32 group) const;
  bool is_in_meta_group(u32 group) const;
};

// False: the superblock describes nothing that could lie on a device of that many bytes.
bool make_ext4_layout(const ExtSuper& super, u64 device_bytes, Ext4Layout* layout);

// A group descriptor of either size.
struct Ext4Group {
  u64 block_bitmap;
  u64 inode_bitmap;
  u64 inode_table;
  u32 free_clusters;
  u32 bitmap_checksum;
  bool has_no_bitmap;  // nothing was ever allocated here but the group's own metadata
};
Ext4Group ext4_group_at(const Ext4Layout& layout, const u8* desc);
// The descriptor's own checksum holds, or the file system has none.
bool ext4_group_is_sound(const Ext4Layout& layout, u32 group, const u8* desc, const u8* uuid);
// The same for a group's bitmap.
bool ext4_bitmap_is_sound(const Ext4Layout& layout, const Ext4Group& group, const u8* bitmap);

}  // namespace snbf
