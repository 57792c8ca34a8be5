// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/ext4_layout.h"

#include "fsread/crc32c.h"

namespace snbf {

namespace {

using Super = ExtSuper;

constexpr u32 kLogBlockSizeMax = 6;
constexpr u32 kLogClusterSizeMax = 20;
constexpr u32 kDescSizeMax = 1024;
constexpr u32 kDescSize32 = 32;
constexpr u32 kDescSize64 = 64;
constexpr u32 kChecksumAt = 30;
constexpr u32 kBitmapChecksumHighAt = 56;
constexpr u16 kBlockUninit = 0x2;

// The table of descriptors takes at most this part of the device, of a real file system far less.
constexpr u64 kDescShareOfDevice = 1024;

bool is_power_of(u32 value, u32 base) {
  while (value % base == 0) value /= base;
  return value == 1;
}

u32 divide_up(u64 value, u64 by) { return static_cast<u32>((value + by - 1) / by); }

bool has_sane_sizes(const ExtSuper& super) {
  if (super.log_block_size > kLogBlockSizeMax || super.log_cluster_size > kLogClusterSizeMax ||
      super.log_cluster_size < super.log_block_size) {
    return false;
  }
  if (super.blocks_per_group == 0 || super.inodes_per_group == 0 || super.blocks_count == 0) {
    return false;
  }
  if (super.first_data_block > 1 || super.first_data_block >= super.blocks_count) return false;
  const u32 desc_min = super.has(Super::k64Bit) ? kDescSize64 : kDescSize32;
  if (super.desc_size < desc_min || super.desc_size > kDescSizeMax ||
      !is_power_of_two(super.desc_size)) {
    return false;
  }
  const u32 block_size = 1024u << super.log_block_size;
  const u32 cluster_shift = super.log_cluster_size - super.log_block_size;
  if (super.inodes_per_group > block_size * 8) return false;
  return super.inode_size >= 128 && super.inode_size <= block_size &&
         is_power_of_two(super.inode_size) && super.clusters_per_group % 8 == 0 &&
         super.clusters_per_group <= block_size * 8 &&
         u64{super.clusters_per_group} << cluster_shift == super.blocks_per_group;
}

}  // namespace

bool make_ext4_layout(const ExtSuper& super, u64 device_bytes, Ext4Layout* layout) {
  if (!has_sane_sizes(super)) return false;
  const u32 block_size = 1024u << super.log_block_size;
  if (super.blocks_count > device_bytes / block_size) return false;
  const u64 groups = (super.blocks_count - super.first_data_block + super.blocks_per_group - 1) /
                     super.blocks_per_group;
  if (groups > 0xFFFFFFFF ||
      groups * super.desc_size > device_bytes / kDescShareOfDevice + block_size) {
    return false;
  }
  *layout = {
      .super = super,
      .block_size = block_size,
      .cluster_shift = super.log_cluster_size - super.log_block_size,
      .group_count = static_cast<u32>(groups),
      .desc_per_block = block_size / super.desc_size,
      .desc_blocks = divide_up(groups, block_size / super.desc_size),
      .itable_blocks = divide_up(u64{super.inodes_per_group} * super.inode_size, block_size)};
  return true;
}

bool Ext4Layout::has_super(u32 group) const {
  if (group == 0) return true;
  if ((super.compat & Super::kSparseSuper2) != 0) {
    return group == super.backup_groups[0] || group == super.backup_groups[1];
  }
  if (group == 1 || !super.has(Super::kSparseSuper)) return true;
  return is_power_of(group, 3) || is_power_of(group, 5) || is_power_of(group, 7);
}

bool Ext4Layout::is_in_meta_group(u32 group) const {
  return super.has(Super::kMetaBlockGroups) && group / desc_per_block >= super.first_meta_bg;
}

u64 Ext4Layout::desc_block(u32 n) const {
  const u32 group = n * desc_per_block;
  // The superblock lies 1024 bytes from the device's start, whatever the first group begins with.
  const u64 super_block = block_size == 1024 ? 1 : 0;
  if (!is_in_meta_group(group)) return super_block + 1 + n;
  if (n == 0) return super_block + 1;
  return first_block_of(group) + (has_super(group) ? 1 : 0);
}

u32 Ext4Layout::base_meta_blocks(u32 group) const {
  const u32 copy = has_super(group) ? 1 : 0;
  if (is_in_meta_group(group)) {
    const u32 place = group % desc_per_block;
    const bool has_desc = place == 0 || place == 1 || place == desc_per_block - 1;
    return copy + (has_desc ? 1 : 0);
  }
  if (copy == 0) return 0;
  const u32 descs = super.has(Super::kMetaBlockGroups) ? super.first_meta_bg : desc_blocks;
  return copy + descs + super.reserved_gdt_blocks;
}

Ext4Group ext4_group_at(const Ext4Layout& layout, const u8* desc) {
  const ExtSuper& super = layout.super;
  Ext4Group group = {.block_bitmap = le32_at(desc),
                     .inode_bitmap = le32_at(desc + 4),
                     .inode_table = le32_at(desc + 8),
                     .free_clusters = le16_at(desc + 12),
                     .bitmap_checksum = le16_at(desc + 24),
                     .has_no_bitmap = false};
  if (super.desc_size >= kDescSize64) {
    group.block_bitmap |= u64{le32_at(desc + 32)} << 32;
    group.inode_bitmap |= u64{le32_at(desc + 36)} << 32;
    group.inode_table |= u64{le32_at(desc + 40)} << 32;
    group.free_clusters |= u32{le16_at(desc + 44)} << 16;
    group.bitmap_checksum |= u32{le16_at(desc + kBitmapChecksumHighAt)} << 16;
  }
  const bool has_flags = super.has(Super::kGroupChecksums) || super.has(Super::kMetadataChecksums);
  group.has_no_bitmap = has_flags && (le16_at(desc + 18) & kBlockUninit) != 0;
  return group;
}

bool ext4_group_is_sound(const Ext4Layout& layout, u32 group, const u8* desc, const u8* uuid) {
  const ExtSuper& super = layout.super;
  const u8 number[4] = {static_cast<u8>(group), static_cast<u8>(group >> 8),
                        static_cast<u8>(group >> 16), static_cast<u8>(group >> 24)};
  const u8* rest = desc + kChecksumAt + 2;
  const size_t rest_bytes = super.desc_size - kChecksumAt - 2;
  u32 expected = 0;
  if (super.has(Super::kMetadataChecksums)) {
    const u8 no_checksum[2] = {};
    expected = crc32c(super.checksum_seed, number, sizeof(number));
    expected = crc32c(expected, desc, kChecksumAt);
    expected = crc32c(expected, no_checksum, sizeof(no_checksum));
    expected = crc32c(expected, rest, rest_bytes) & 0xFFFF;
  } else if (super.has(Super::kGroupChecksums)) {
    u16 value = crc16(0xFFFF, uuid, 16);
    value = crc16(value, number, sizeof(number));
    value = crc16(value, desc, kChecksumAt);
    expected = crc16(value, rest, rest_bytes);
  } else {
    return true;
  }
  return le16_at(desc + kChecksumAt) == expected;
}

bool ext4_bitmap_is_sound(const Ext4Layout& layout, const Ext4Group& group, const u8* bitmap) {
  const ExtSuper& super = layout.super;
  if (!super.has(Super::kMetadataChecksums)) return true;
  const u32 found = crc32c(super.checksum_seed, bitmap, super.clusters_per_group / 8);
  const u32 kept = super.desc_size >= kDescSize64 ? 0xFFFFFFFF : 0xFFFF;
  return (found & kept) == group.bitmap_checksum;
}

}  // namespace snbf
