// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/xfs5_reader.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "core/log.h"
#include "core/memory.h"
#include "fsread/chunkmarks.h"
#include "fsread/metaread.h"
#include "fsread/xfs5_layout.h"
#include "fsread/xfs_log.h"

namespace snbf {

namespace {

constexpr const char* kClaim = "xfs5_reader_claim";
constexpr const char* kInit = "xfs5_reader_init";
constexpr const char* kRead = "xfs5_reader_read";

}  // namespace

struct Xfs5Reader {
  plat_bdev* bdev;
  XfsSuper super;
  XfsAgf* agfs;  // of each AG
  u8* buffer;    // the block of a tree in hand
};

namespace {

int device_major(plat_bdev* bdev) {
  return static_cast<int>(dev_major(snbf_plat_bdev_device(bdev)));
}
int device_minor(plat_bdev* bdev) {
  return static_cast<int>(dev_minor(snbf_plat_bdev_device(bdev)));
}

bool fail_memory(const char* origin) {
  snbf_log(kLogError, "%s(): Memory allocation failed.", origin);
  return false;
}

// The first bytes of the superblock, before its sector size is known.
bool read_super(const char* origin, plat_bdev* bdev, XfsSuper* super) {
  VirtBuffer bytes{XfsSuper::kBytes};
  if (!bytes) return fail_memory(origin);
  if (int rc = read_metadata(bdev, bytes.data(), 0, XfsSuper::kBytes); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", origin,
             device_major(bdev), device_minor(bdev), rc);
    return false;
  }
  *super = xfs_super_at(bytes.data());
  return true;
}

bool fail_super(plat_bdev* bdev) {
  snbf_log(kLogError, "%s(): Superblock of hdd(%d, %d) is corrupt.", kInit, device_major(bdev),
           device_minor(bdev));
  return false;
}

bool check_super(const Xfs5Reader& reader) {
  const XfsSuper& super = reader.super;
  if (!xfs_super_is_sane(super, snbf_plat_bdev_bytes(reader.bdev))) return fail_super(reader.bdev);
  VirtBuffer sector{super.sector_size};
  if (!sector) return fail_memory(kInit);
  if (int rc = read_metadata(reader.bdev, sector.data(), 0, super.sector_size); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", kInit,
             device_major(reader.bdev), device_minor(reader.bdev), rc);
    return false;
  }
  if (xfs_checksum_holds(super, sector.data(), super.sector_size, kXfsSuperChecksumAt)) return true;
  return fail_super(reader.bdev);
}

void log_super(const Xfs5Reader& reader) {
  const XfsSuper& super = reader.super;
  snbf_log(2, "%s(): Detected XFS version %d on hdd(%d, %d)", kInit,
           static_cast<int>(super.version), device_major(reader.bdev), device_minor(reader.bdev));
  snbf_log(2, "   features=(0x%x, 0x%x)", super.ro_compat, super.incompat);
  snbf_log(2, "   blocksize=%d", static_cast<int>(super.block_size));
  snbf_log(2, "   sectsize=%d", static_cast<int>(super.sector_size));
  snbf_log(2, "   blocks=%lld", static_cast<long long>(super.blocks));
  snbf_log(2, "   AG size=%d blocks", static_cast<int>(super.ag_blocks));
  snbf_log(2, "   AG count=%d", static_cast<int>(super.ag_count));
}

bool take_agf(Xfs5Reader& reader, u32 ag, u8* sector) {
  const XfsSuper& super = reader.super;
  const u64 at = super.ag_start(ag) * super.block_size + super.sector_size;
  if (int rc = read_metadata(reader.bdev, sector, at, super.sector_size); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to read AGF of AG %d of hdd(%d, %d): rc=%d", kInit,
             static_cast<int>(ag), device_major(reader.bdev), device_minor(reader.bdev), rc);
    return false;
  }
  if (const char* wrong = take_xfs_agf(super, ag, sector, &reader.agfs[ag]); wrong != nullptr) {
    snbf_log(kLogError, "%s(): AGF of AG %d of hdd(%d, %d) is corrupt: %s is wrong", kInit,
             static_cast<int>(ag), device_major(reader.bdev), device_minor(reader.bdev), wrong);
    return false;
  }
  snbf_log(2, "      AGF[%d]: root=%d, level=%d, freeblks=%d, length=%d", static_cast<int>(ag),
           static_cast<int>(reader.agfs[ag].bno_root), static_cast<int>(reader.agfs[ag].bno_level),
           static_cast<int>(reader.agfs[ag].free_blocks), static_cast<int>(super.ag_length(ag)));
  return true;
}

bool take_agfs(Xfs5Reader& reader) {
  const XfsSuper& super = reader.super;
  reader.agfs = static_cast<XfsAgf*>(snbf_plat_virt_alloc(size_t{super.ag_count} * sizeof(XfsAgf)));
  reader.buffer = static_cast<u8*>(snbf_plat_virt_alloc(super.block_size));
  VirtBuffer sector{super.sector_size};
  if (reader.agfs == nullptr || reader.buffer == nullptr || !sector) return fail_memory(kInit);
  for (u32 ag = 0; ag < super.ag_count; ++ag) {
    if (!take_agf(reader, ag, sector.data())) return false;
  }
  return true;
}

int fail_block(u32 ag, u32 number, const char* wrong) {
  snbf_log(kLogError, "%s(): Block %d of AG %d in the free space tree is corrupt: %s is wrong",
           kRead, static_cast<int>(number), static_cast<int>(ag), wrong);
  return -EINVAL;
}

// Brings a block of the tree of an AG into the buffer.
int load_block(const Xfs5Reader& reader, u32 ag, u32 number, u32 level) {
  const XfsSuper& super = reader.super;
  if (number >= super.ag_length(ag)) return fail_block(ag, number, "its place");
  const u64 at = (super.ag_start(ag) + number) * super.block_size;
  if (int rc = read_metadata(reader.bdev, reader.buffer, at, super.block_size); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to read AGF node from block %lld: rc=%d", kRead,
             static_cast<long long>(super.ag_start(ag) + number), rc);
    return rc;
  }
  const char* wrong = judge_xfs_tree_block(super, ag, number, reader.buffer);
  if (wrong != nullptr) return fail_block(ag, number, wrong);
  if (xfs_tree_block(super, reader.buffer).level() != level) {
    return fail_block(ag, number, "its level");
  }
  return 0;
}

// The leaf with the last record that does not begin behind the target, in the reader's buffer, and its number.
int find_leaf(const Xfs5Reader& reader, u32 ag, u64 target, u32* leaf) {
  u32& number = *leaf;
  number = reader.agfs[ag].bno_root;
  for (u32 level = reader.agfs[ag].bno_level - 1;; --level) {
    if (int rc = load_block(reader, ag, number, level); rc != 0) return rc;
    if (level == 0) return 0;
    const XfsTreeBlock block = xfs_tree_block(reader.super, reader.buffer);
    if (block.records() == 0) return fail_block(ag, number, "its number of records");
    u32 record = 0;
    while (record + 1 < block.records() && block.start(record + 1) <= target) ++record;
    number = block.child(record);
  }
}

// What lies between the free extents of one AG, as far as it is asked for.
class GapMarker {
 public:
  GapMarker(const XfsSuper& super, u32 ag, ChunkMarks& marks)
      : marks_(marks), ag_start_(super.ag_start(ag)), ag_length_(super.ag_length(ag)) {
    const u64 first = marks.first_block();
    const u64 end = marks.end_block() - ag_start_;
    begin_ = first > ag_start_ ? first - ag_start_ : 0;
    end_ = end < ag_length_ ? end : ag_length_;
  }

  u64 begin() const { return begin_; }
  bool is_done() const { return begin_ >= end_; }
  // The next free extent; false when it does not lie behind the one before.
  bool take(u64 start, u64 count) {
    const u64 extent_end = start + count;
    if (count == 0 || start < last_end_ || extent_end > ag_length_) return false;
    last_end_ = extent_end;
    if (extent_end <= begin_) return true;
    if (start > begin_) mark_up_to(start);
    begin_ = extent_end;
    return true;
  }
  void finish() { mark_up_to(end_); }

 private:
  void mark_up_to(u64 end) {
    if (begin_ < end) marks_.mark(ag_start_ + begin_, ag_start_ + end);
    begin_ = end;
  }

  ChunkMarks& marks_;
  u64 ag_start_;
  u64 ag_length_;
  u64 begin_;  // of what is not yet told
  u64 end_;
  u64 last_end_ = 0;
};

int mark_ag(const Xfs5Reader& reader, u32 ag, ChunkMarks& marks) {
  GapMarker gaps{reader.super, ag, marks};
  u32 number;
  if (int rc = find_leaf(reader, ag, gaps.begin(), &number); rc != 0) return rc;
  for (;;) {
    const XfsTreeBlock leaf = xfs_tree_block(reader.super, reader.buffer);
    for (u32 record = 0; record < leaf.records() && !gaps.is_done(); ++record) {
      if (!gaps.take(leaf.start(record), leaf.count(record))) {
        return fail_block(ag, number, "the order of its records");
      }
    }
    if (gaps.is_done() || leaf.right_sibling() == XfsTreeBlock::kNoSibling) break;
    number = leaf.right_sibling();
    if (int rc = load_block(reader, ag, number, 0); rc != 0) return rc;
    // Only the leaf of an empty tree is empty; so a ring of leaves is found out by its records.
    if (xfs_tree_block(reader.super, reader.buffer).records() == 0) {
      return fail_block(ag, number, "its number of records");
    }
  }
  gaps.finish();
  return 0;
}

}  // namespace

Claim xfs5_reader_claim(plat_bdev* bdev) {
  XfsSuper super = {};
  if (!read_super(kClaim, bdev, &super)) return Claim::Nobodys;
  if (!super.is_xfs()) return Claim::NotMine;
  const char* obstacle = xfs_unknown_feature(super);
  if (obstacle == nullptr) obstacle = judge_xfs_log(bdev, super);
  if (obstacle != nullptr) {
    snbf_log(1, "%s(): XFS on hdd(%d, %d) has %s (features 0x%x, 0x%x): no reader claims it",
             kClaim, device_major(bdev), device_minor(bdev), obstacle, super.incompat,
             super.ro_compat);
    return Claim::Nobodys;
  }
  const bool fits_version_4 =
      super.version <= 4 && super.sector_size == kSectorBytes && super.block_size <= kPageBytes;
  return fits_version_4 ? Claim::NotMine : Claim::Mine;
}

}  // namespace snbf

using namespace snbf;

Xfs5Reader* xfs5_reader_init(plat_bdev* bdev, u32* block_size) {
  Xfs5Reader* reader = heap_new<Xfs5Reader>(PLAT_ALLOC_NORMAL);
  if (reader == nullptr) {
    fail_memory(kInit);
    return nullptr;
  }
  ScopeExit drop_reader{[reader] { xfs5_reader_destroy(reader); }};
  reader->bdev = bdev;
  if (!read_super(kInit, bdev, &reader->super)) return nullptr;
  if (!reader->super.is_xfs() || xfs_unknown_feature(reader->super) != nullptr) {
    snbf_log(3, "%s(): hdd(%d, %d) doesn't have XFS.", kInit, device_major(bdev),
             device_minor(bdev));
    return nullptr;
  }
  if (!check_super(*reader)) return nullptr;
  log_super(*reader);
  if (!take_agfs(*reader)) return nullptr;
  if (block_size != nullptr) *block_size = reader->super.block_size;
  drop_reader.dismiss();
  return reader;
}

int xfs5_reader_read(Xfs5Reader* reader, u64 first, u32 chunk_size, u8* bits, u32 chunk_count) {
  if (reader == nullptr) {
    snbf_log(kLogError, "%s(): Invalid reader's context NULL.", kRead);
    return -EINVAL;
  }
  const XfsSuper& super = reader->super;
  if (int rc = check_reader_chunks(kRead, chunk_size, super.block_size); rc != 0) return rc;
  ChunkMarks marks{bits, first, chunk_count, chunk_size, super.block_size};
  marks.mark(super.blocks, blocks_covering(snbf_plat_bdev_bytes(reader->bdev), super.block_size));
  u64 block = marks.first_block();
  while (block < marks.end_block() && block < super.blocks) {
    const u32 ag = static_cast<u32>(block / super.ag_blocks);
    if (int rc = mark_ag(*reader, ag, marks); rc != 0) return rc;
    block = super.ag_start(ag) + super.ag_blocks;
  }
  return 0;
}

int xfs5_reader_destroy(Xfs5Reader* reader) {
  if (reader == nullptr) return 0;
  snbf_plat_virt_free(reader->agfs);
  snbf_plat_virt_free(reader->buffer);
  snbf_plat_heap_free(reader);
  return 0;
}
