// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/xfs5_layout.h"

#include "base/string.h"
#include "fsread/crc32c.h"
#include "fsread/reader.h"

namespace snbf {

namespace {

constexpr u32 kAgfMagic = 0x58414746;    // "XAGF"
constexpr u32 kTreeMagic4 = 0x41425442;  // "ABTB"
constexpr u32 kTreeMagic5 = 0x41423342;  // "AB3B"

// Free inode tree, reverse mapping, shared blocks, inode tree counters.
constexpr u32 kKnownRoCompat = 0x1 | 0x2 | 0x4 | 0x8;
// File types, sparse inodes, another uuid, times beyond 2038, large extent counts, exchanged
// ranges, parent pointers. Not: a file system that waits for its repair.
constexpr u32 kNeedsRepair = 0x10;
constexpr u32 kMetaUuid = 0x4;
constexpr u32 kKnownIncompat = 0x1 | 0x2 | kMetaUuid | 0x8 | 0x20 | 0x40 | 0x80;

constexpr u32 kBlockSizeMax = 65536;
constexpr u32 kSectorSizeMax = 32768;
constexpr u32 kAgfChecksumAt = 216;
constexpr u32 kTreeChecksumAt = 52;
constexpr u32 kHeaderBytes4 = 16;
constexpr u32 kHeaderBytes5 = 56;
constexpr u32 kRecordBytes = 8;
constexpr u32 kChildBytes = 4;
constexpr u32 kLevelsMax = 16;  // no tree is that high

// A real AG has 16 MiB at the least, but for the last.
constexpr u64 kAgBytesMin = 1 << 20;
constexpr u64 kAgsAlwaysAllowed = 64;

u32 node_capacity(const XfsTreeBlock& block) {
  return (block.block_size - block.header_bytes) / (kRecordBytes + kChildBytes);
}
u32 leaf_capacity(const XfsTreeBlock& block) {
  return (block.block_size - block.header_bytes) / kRecordBytes;
}

}  // namespace

XfsSuper xfs_super_at(const u8* bytes) {
  XfsSuper super = {.magic = be32_at(bytes),
                    .version = be16_at(bytes + 100) & 0xFu,
                    .block_size = be32_at(bytes + 4),
                    .sector_size = be16_at(bytes + 102),
                    .blocks = be64_at(bytes + 8),
                    .ag_blocks = be32_at(bytes + 84),
                    .ag_count = be32_at(bytes + 88),
                    .log_start = be64_at(bytes + 48),
                    .log_blocks = be32_at(bytes + 96),
                    .ag_block_log = bytes[124],
                    .ro_compat = 0,
                    .incompat = 0,
                    .uuid = {}};
  if (super.version >= 5) {
    super.ro_compat = be32_at(bytes + 212);
    super.incompat = be32_at(bytes + 216);
  }
  const bool has_other_uuid = (super.incompat & kMetaUuid) != 0;
  mem_copy(super.uuid, bytes + (has_other_uuid ? 248 : 32), sizeof(super.uuid));
  return super;
}

const char* xfs_unknown_feature(const XfsSuper& super) {
  if (super.version > 5) return "a version above 5";
  if ((super.incompat & kNeedsRepair) != 0) return "a repair before it";
  if ((super.incompat & ~kKnownIncompat) != 0) return "an unknown incompatible feature";
  if ((super.ro_compat & ~kKnownRoCompat) != 0) return "an unknown read-only feature";
  return nullptr;
}

bool xfs_super_is_sane(const XfsSuper& super, u64 device_bytes) {
  if (!is_power_of_two(super.block_size) || super.block_size < kSectorBytes ||
      super.block_size > kBlockSizeMax) {
    return false;
  }
  if (!is_power_of_two(super.sector_size) || super.sector_size < kSectorBytes ||
      super.sector_size > kSectorSizeMax) {
    return false;
  }
  if (super.ag_blocks == 0 || super.ag_count == 0 ||
      super.ag_count > device_bytes / kAgBytesMin + kAgsAlwaysAllowed) {
    return false;
  }
  const u64 last_start = super.ag_start(super.ag_count - 1);
  return super.blocks <= device_bytes / super.block_size && super.blocks > last_start &&
         super.blocks - last_start <= super.ag_blocks;
}

bool xfs_checksum_holds(const XfsSuper& super, const u8* data, u32 bytes, u32 at) {
  if (!super.has_checksums()) return true;
  const u8 no_checksum[4] = {};
  u32 value = crc32c(~0u, data, at);
  value = crc32c(value, no_checksum, sizeof(no_checksum));
  value = crc32c(value, data + at + 4, bytes - at - 4);
  return ~value == le32_at(data + at);
}

const char* take_xfs_agf(const XfsSuper& super, u32 ag, const u8* bytes, XfsAgf* agf) {
  if (be32_at(bytes) != kAgfMagic) return "its magic number";
  if (!xfs_checksum_holds(super, bytes, super.sector_size, kAgfChecksumAt)) return "its checksum";
  if (be32_at(bytes + 8) != ag) return "its number";
  if (be32_at(bytes + 12) != super.ag_length(ag)) return "its length";
  if (super.has_checksums() && mem_compare(bytes + 64, super.uuid, sizeof(super.uuid)) != 0) {
    return "its uuid";
  }
  *agf = {.bno_root = be32_at(bytes + 16),
          .bno_level = be32_at(bytes + 28),
          .free_blocks = be32_at(bytes + 52)};
  if (agf->bno_level == 0 || agf->bno_level > kLevelsMax) return "the height of its tree";
  if (agf->bno_root >= super.ag_length(ag)) return "the root of its tree";
  return nullptr;
}

u32 XfsTreeBlock::level() const { return be16_at(bytes + 4); }
u32 XfsTreeBlock::records() const { return be16_at(bytes + 6); }
u32 XfsTreeBlock::right_sibling() const { return be32_at(bytes + 12); }
u32 XfsTreeBlock::start(u32 record) const {
  return be32_at(bytes + header_bytes + record * kRecordBytes);
}
u32 XfsTreeBlock::count(u32 record) const {
  return be32_at(bytes + header_bytes + record * kRecordBytes + 4);
}
u32 XfsTreeBlock::child(u32 record) const {
  return be32_at(bytes + header_bytes + node_capacity(*this) * kRecordBytes + record * kChildBytes);
}

XfsTreeBlock xfs_tree_block(const XfsSuper& super, const u8* bytes) {
  return {.bytes = bytes,
          .block_size = super.block_size,
          .header_bytes = super.has_checksums() ? kHeaderBytes5 : kHeaderBytes4};
}

const char* judge_xfs_tree_block(const XfsSuper& super, u32 ag, u32 number, const u8* bytes) {
  const XfsTreeBlock block = xfs_tree_block(super, bytes);
  if (be32_at(bytes) != (super.has_checksums() ? kTreeMagic5 : kTreeMagic4)) {
    return "its magic number";
  }
  if (!xfs_checksum_holds(super, bytes, super.block_size, kTreeChecksumAt)) return "its checksum";
  if (super.has_checksums()) {
    const u64 sector = (super.ag_start(ag) + number) * (super.block_size / kSectorBytes);
    if (be64_at(bytes + 16) != sector) return "its place";
    if (be32_at(bytes + 48) != ag) return "its owner";
    if (mem_compare(bytes + 32, super.uuid, sizeof(super.uuid)) != 0) return "its uuid";
  }
  const u32 capacity = block.level() == 0 ? leaf_capacity(block) : node_capacity(block);
  return block.records() > capacity ? "its number of records" : nullptr;
}

}  // namespace snbf
