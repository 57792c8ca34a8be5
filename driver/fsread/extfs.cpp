// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/extfs.h"

#include "core/log.h"
#include "core/memory.h"
#include "fsread/crc32c.h"
#include "fsread/metaread.h"

namespace snbf {

namespace {

constexpr const char* kClaim = "ext4_reader_claim";

using Super = ExtSuper;

// Those that leave group descriptors and block bitmaps as they are, and those that the reader of
// ext4 knows.
constexpr u32 kKnownIncompat = Super::kFileType | Super::kMetaBlockGroups | Super::kExtents |
                               Super::k64Bit | Super::kMultiMount | Super::kFlexGroups |
                               Super::kXattrInodes | Super::kDirData | Super::kChecksumSeed |
                               Super::kLargeDir | Super::kInlineData | Super::kEncrypt |
                               Super::kCaseFold;

// Large files, directory trees, huge files, many links, extra inode fields, quotas, read-only,
// projects, shared blocks, verity, the orphan file.
constexpr u32 kHarmlessRoCompat =
    0x2 | 0x4 | 0x8 | 0x20 | 0x40 | 0x100 | 0x1000 | 0x2000 | 0x4000 | 0x8000 | 0x10000;
constexpr u32 kKnownRoCompat = kHarmlessRoCompat | Super::kSparseSuper | Super::kGroupChecksums |
                               Super::kBigAlloc | Super::kMetadataChecksums;

constexpr u32 kLogPageSize = 2;  // of the largest block that is read a block at a time
constexpr u32 kDescSize32 = 32;

}  // namespace

ExtSuper ext_super_at(const u8* bytes) {
  ExtSuper super = {.magic = le16_at(bytes + 56),
                    .blocks_count = le32_at(bytes + 4),
                    .first_data_block = le32_at(bytes + 20),
                    .log_block_size = le32_at(bytes + 24),
                    .log_cluster_size = le32_at(bytes + 28),
                    .blocks_per_group = le32_at(bytes + 32),
                    .clusters_per_group = le32_at(bytes + 36),
                    .inodes_per_group = le32_at(bytes + 40),
                    .inode_size = le16_at(bytes + 88),
                    .compat = le32_at(bytes + 92),
                    .incompat = le32_at(bytes + 96),
                    .ro_compat = le32_at(bytes + 100),
                    .reserved_gdt_blocks = le16_at(bytes + 206),
                    .desc_size = kDescSize32,
                    .first_meta_bg = le32_at(bytes + 260),
                    .backup_groups = {le32_at(bytes + 588), le32_at(bytes + 592)},
                    .checksum_seed = crc32c(~0u, bytes + 104, 16)};
  if (le32_at(bytes + 76) == 0) super.inode_size = 128;  // the first revision has no such field
  if (super.has(Super::k64Bit)) {
    super.blocks_count |= u64{le32_at(bytes + 336)} << 32;
    super.desc_size = le16_at(bytes + 254);
  }
  if (!super.has(Super::kBigAlloc)) {
    super.log_cluster_size = super.log_block_size;
    super.clusters_per_group = super.blocks_per_group;
  }
  if (super.has(Super::kChecksumSeed)) super.checksum_seed = le32_at(bytes + 624);
  return super;
}

ExtVerdict judge_ext(const ExtSuper& super) {
  using enum ExtVerdict::Reader;
  // What the journal holds may use blocks that the bitmaps still call free. A file system that is
  // frozen or was unmounted has an empty one.
  if (super.has(Super::kNeedsRecovery)) return {Nobody, "a journal that is not replayed"};
  if ((super.incompat & ~kKnownIncompat) != 0) return {Nobody, "an unknown incompatible feature"};
  if ((super.ro_compat & ~kKnownRoCompat) != 0) return {Nobody, "an unknown read-only feature"};
  if (super.has(Super::k64Bit)) return {Ext4, "64-bit group descriptors"};
  if (super.has(Super::kBigAlloc)) return {Ext4, "bitmaps of clusters"};
  if (super.has(Super::kMetaBlockGroups)) return {Ext4, "meta block groups"};
  // Groups may then have no bitmap on the disk.
  if (super.has(Super::kGroupChecksums) || super.has(Super::kMetadataChecksums)) {
    return {Ext4, "checksums of its groups"};
  }
  if (super.log_block_size > kLogPageSize) return {Ext4, "blocks larger than a page"};
  if (super.blocks_per_group != 8192u << super.log_block_size) {
    return {Ext4, "groups smaller than their bitmap blocks"};
  }
  return {Ext2, nullptr};
}

Claim ext4_reader_claim(plat_bdev* bdev) {
  const int major = static_cast<int>(dev_major(snbf_plat_bdev_device(bdev)));
  const int minor = static_cast<int>(dev_minor(snbf_plat_bdev_device(bdev)));
  VirtBuffer bytes{ExtSuper::kBytes};
  if (!bytes) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kClaim);
    return Claim::Nobodys;
  }
  if (int rc = read_metadata(bdev, bytes.data(), ExtSuper::kBytes, ExtSuper::kBytes); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", kClaim, major,
             minor, rc);
    return Claim::Nobodys;
  }
  const ExtSuper super = ext_super_at(bytes.data());
  if (!super.is_ext()) return Claim::NotMine;
  const ExtVerdict verdict = judge_ext(super);
  switch (verdict.reader) {
    case ExtVerdict::Reader::Ext2:
      return Claim::NotMine;
    case ExtVerdict::Reader::Ext4:
      return Claim::Mine;
    case ExtVerdict::Reader::Nobody:
      break;
  }
  snbf_log(1, "%s(): ext FS on hdd(%d, %d) has %s (features 0x%x, 0x%x): no reader claims it",
           kClaim, major, minor, verdict.why, super.incompat, super.ro_compat);
  return Claim::Nobodys;
}

}  // namespace snbf
