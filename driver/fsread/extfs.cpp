// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/extfs.h"

#include "core/log.h"
#include "core/memory.h"
#include "fsread/metaread.h"
#include "fsread/reader.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "extfs_is_misread";
constexpr u32 kSuperBytes = 1024;  // at this offset, too
constexpr u16 kMagic = 0xEF53;
constexpr u32 kLogBlockSizeMax = 2;  // 4096 bytes, a page

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
// Those that leave group descriptors and block bitmaps as they are. Meta block groups are the
// reader's own to refuse.
constexpr u32 kHarmlessIncompat = kFileType | kMetaBlockGroups | kExtents | kMultiMount |
                                  kFlexGroups | kXattrInodes | kDirData | kChecksumSeed |
                                  kLargeDir | kInlineData | kEncrypt | kCaseFold;

// Sparse superblocks, large files, directory trees, huge files, group checksums, many links, extra
// inode fields, quotas, metadata checksums, read-only, projects, shared blocks, verity, the orphan
// file.
constexpr u32 kHarmlessRoCompat = 0x1 | 0x2 | 0x4 | 0x8 | 0x10 | 0x20 | 0x40 | 0x100 | 0x400 |
                                  0x1000 | 0x2000 | 0x4000 | 0x8000 | 0x10000;
constexpr u32 kBigAlloc = 0x200;

}  // namespace

const char* why_ext2_misreads(const ExtFeatures& features) {
  if ((features.incompat & k64Bit) != 0) return "64-bit group descriptors";
  if ((features.ro_compat & kBigAlloc) != 0) return "bitmaps of clusters";
  // What the journal holds may use blocks that the bitmaps still call free. A file system that is
  // frozen or was unmounted has an empty one.
  if ((features.incompat & kNeedsRecovery) != 0) return "a journal that is not replayed";
  if ((features.incompat & ~kHarmlessIncompat) != 0) return "an unknown incompatible feature";
  if ((features.ro_compat & ~kHarmlessRoCompat) != 0) return "an unknown read-only feature";
  if (features.log_block_size > kLogBlockSizeMax) return "blocks larger than a page";
  if (features.blocks_per_group != 8192u << features.log_block_size) {
    return "groups smaller than their bitmap blocks";
  }
  return nullptr;
}

bool extfs_is_misread(plat_bdev* bdev) {
  const int major = static_cast<int>(dev_major(snbf_plat_bdev_device(bdev)));
  const int minor = static_cast<int>(dev_minor(snbf_plat_bdev_device(bdev)));
  VirtBuffer super{kSuperBytes};
  if (!super) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return true;
  }
  if (int rc = read_metadata(bdev, super.data(), kSuperBytes, kSuperBytes); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", kOrigin, major,
             minor, rc);
    return true;
  }
  const u8* at = super.data();
  if (le16_at(at + 56) != kMagic) return false;
  const ExtFeatures features = {.log_block_size = le32_at(at + 24),
                                .blocks_per_group = le32_at(at + 32),
                                .incompat = le32_at(at + 96),
                                .ro_compat = le32_at(at + 100)};
  const char* why = why_ext2_misreads(features);
  if (why == nullptr) return false;
  snbf_log(1, "%s(): ext FS on hdd(%d, %d) has %s (features 0x%x, 0x%x): no reader claims it",
           kOrigin, major, minor, why, features.incompat, features.ro_compat);
  return true;
}

}  // namespace snbf
