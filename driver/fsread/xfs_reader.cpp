// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/xfs_reader.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "base/string.h"
#include "core/log.h"
#include "core/memory.h"
#include "fsread/chunkmarks.h"
#include "fsread/reader.h"
#include "util/bdev.h"

namespace snbf {

namespace {

constexpr const char* kInit = "xfs_reader_init";
constexpr const char* kRead = "xfs_reader_read";
constexpr const char* kFind = "xfs_find_leaf";

constexpr u32 kSuperMagic = 0x58465342;  // "XFSB"
constexpr u32 kAgfMagic = 0x58414746;    // "XAGF"
constexpr u32 kTreeMagic = 0x41425442;   // "ABTB"
constexpr u32 kFirstBufferBytes = 4096;
constexpr u32 kBlockSizeMin = 512;
constexpr u32 kBlockSizeMax = 65536;
constexpr u32 kHeaderBytes = 16;
constexpr u32 kRecordBytes = 8;
constexpr u32 kChildBytes = 4;
constexpr u32 kNoSibling = 0xFFFFFFFF;
constexpr u32 kLevelsMax = 16;  // no tree is that high

// A real AG has 16 MiB at the least, but for the last; a superblock that counts far more of them
// than there is room for is no reason to fill the memory.
constexpr u64 kAgBytesMin = 1 << 20;
constexpr u64 kAgsAlwaysAllowed = 64;

}  // namespace

struct XfsReader {
  plat_bdev* bdev;
  u32 block_size;  // bytes
  u32 ag_blocks;
  u32 ag_count;
  u32 sector_size;  // only logged
  u8* buffer;       // the block of a tree in hand
  u32* bno_root;    // of each AG
  u32* ag_length;   // blocks of each AG
};

namespace {

int device_major(const XfsReader& reader) {
  return static_cast<int>(dev_major(snbf_plat_bdev_device(reader.bdev)));
}
int device_minor(const XfsReader& reader) {
  return static_cast<int>(dev_minor(snbf_plat_bdev_device(reader.bdev)));
}

u32 block_level(const XfsReader& reader) { return be16_at(reader.buffer + 4); }
u32 block_records(const XfsReader& reader) { return be16_at(reader.buffer + 6); }
u32 right_sibling(const XfsReader& reader) { return be32_at(reader.buffer + 12); }
u32 start_of(const XfsReader& reader, u32 record) {
  return be32_at(reader.buffer + kHeaderBytes + record * kRecordBytes);
}
u32 count_of(const XfsReader& reader, u32 record) {
  return be32_at(reader.buffer + kHeaderBytes + record * kRecordBytes + 4);
}
u32 node_capacity(const XfsReader& reader) {
  return (reader.block_size - kHeaderBytes) / (kRecordBytes + kChildBytes);
}
u32 leaf_capacity(const XfsReader& reader) {
  return (reader.block_size - kHeaderBytes) / kRecordBytes;
}

bool take_superblock(XfsReader& reader, const u8* super) {
  reader.block_size = be32_at(super + 4);
  reader.ag_blocks = be32_at(super + 84);
  reader.ag_count = be32_at(super + 88);
  reader.sector_size = be16_at(super + 102);
  const u64 ags_max = snbf_plat_bdev_bytes(reader.bdev) / kAgBytesMin + kAgsAlwaysAllowed;
  return is_power_of_two(reader.block_size) && reader.block_size >= kBlockSizeMin &&
         reader.block_size <= kBlockSizeMax && reader.ag_blocks != 0 && reader.ag_count != 0 &&
         reader.ag_count <= ags_max;
}

void log_superblock(const XfsReader& reader) {
  snbf_log(2, "%s(): Detected XFS on hdd(%d, %d)", kInit, device_major(reader),
           device_minor(reader));
  snbf_log(2, "   magic=0x%08x", kSuperMagic);
  snbf_log(2, "   blocksize=%d", static_cast<int>(reader.block_size));
  snbf_log(2, "   sectsize=%d", static_cast<int>(reader.sector_size));
  snbf_log(2, "   AG size=%d blocks", static_cast<int>(reader.ag_blocks));
  snbf_log(2, "   AG count=%d", static_cast<int>(reader.ag_count));
}

bool fit_buffer(XfsReader& reader) {
  if (reader.block_size == kFirstBufferBytes) return true;
  snbf_plat_virt_free(reader.buffer);
  reader.buffer = static_cast<u8*>(snbf_plat_virt_alloc(reader.block_size));
  if (reader.buffer != nullptr) return true;
  snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
  return false;
}

bool make_tables(XfsReader& reader) {
  const size_t bytes = size_t{reader.ag_count} * sizeof(u32);
  reader.bno_root = static_cast<u32*>(snbf_plat_virt_alloc(bytes));
  reader.ag_length = static_cast<u32*>(snbf_plat_virt_alloc(bytes));
  if (reader.bno_root != nullptr && reader.ag_length != nullptr) return true;
  snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
  return false;
}

int read_sector(const XfsReader& reader, u8* to, u64 sector) {
  return snbf_bread(reader.bdev, to, kSectorBytes, static_cast<s64>(sector), 1);
}

// The copy of the superblock at the head of an AG.
bool check_ag_superblock(const XfsReader& reader, u32 ag, u64 sector, u8* work) {
  if (int rc = read_sector(reader, work, sector); rc < 0) {
    snbf_log(kLogError, "%s(): Failed to read Super Block of AG %d of hdd(%d, %d): rc=%d", kInit,
             static_cast<int>(ag), device_major(reader), device_minor(reader), rc);
    return false;
  }
  const u32 magic = be32_at(work);
  if (magic == kSuperMagic) return true;
  snbf_log(kLogError,
           "%s(): AG %d of hdd(%d, %d) has incorrect SB magic number: 0x%08x instead of 0x%08x.",
           kInit, static_cast<int>(ag), device_major(reader), device_minor(reader), magic,
           kSuperMagic);
  return false;
}

bool take_agf(XfsReader& reader, u32 ag, u64 sector, u8* work) {
  if (int rc = read_sector(reader, work, sector); rc < 0) {
    snbf_log(kLogError, "%s(): Failed to read AGF of AG %d of hdd(%d, %d): rc=%d", kInit,
             static_cast<int>(ag), device_major(reader), device_minor(reader), rc);
    return false;
  }
  if (be32_at(work) != kAgfMagic) {
    snbf_log(kLogError,
             "%s(): Incorrect AGF magic of AG %d of hdd(%d, %d): 0x%08x instead of 0x%08x", kInit,
             static_cast<int>(ag), device_major(reader), device_minor(reader), be32_at(work),
             kAgfMagic);
    return false;
  }
  reader.bno_root[ag] = be32_at(work + 16);
  reader.ag_length[ag] = be32_at(work + 12);
  snbf_log(2, "      AGF[%d]: roots=(%d, %d), levels=(%d, %d), freeblks=%d, length=%d",
           static_cast<int>(ag), static_cast<int>(reader.bno_root[ag]),
           static_cast<int>(be32_at(work + 20)), static_cast<int>(be32_at(work + 28)),
           static_cast<int>(be32_at(work + 32)), static_cast<int>(be32_at(work + 52)),
           static_cast<int>(reader.ag_length[ag]));
  // Blocks of the next AG would be looked for in the tree of this one.
  if (reader.ag_length[ag] <= reader.ag_blocks) return true;
  snbf_log(kLogError, "%s(): AGF of AG %d of hdd(%d, %d) is corrupt.", kInit, static_cast<int>(ag),
           device_major(reader), device_minor(reader));
  return false;
}

bool take_ags(XfsReader& reader) {
  u8 work[kSectorBytes];
  for (u32 ag = 0; ag < reader.ag_count; ++ag) {
    const u64 sector = u64{ag} * reader.ag_blocks * (reader.block_size / kSectorBytes);
    if (!check_ag_superblock(reader, ag, sector, work)) return false;
    if (!take_agf(reader, ag, sector + 1, work)) return false;
  }
  return true;
}

// A leaf is walked from record to record, a node is not.
bool records_rise(const XfsReader& reader) {
  if (block_level(reader) != 0) return true;
  for (u32 record = 1; record < block_records(reader); ++record) {
    if (start_of(reader, record) <= start_of(reader, record - 1)) return false;
  }
  return true;
}

int fail_order(const char* origin, u64 block) {
  snbf_log(kLogError, "%s(): B+tree node block %lld is out of order", origin,
           static_cast<long long>(block));
  return -EINVAL;
}

// Brings a block of a tree into the buffer. What it says is checked as far as no access may leave
// the buffer, and no walk may go round and round.
int load_block(const XfsReader& reader, const char* origin, u64 block) {
  const int rc = snbf_bread(reader.bdev, reader.buffer, static_cast<int>(reader.block_size),
                            static_cast<s64>(block), 1);
  if (rc < 0) {
    snbf_log(kLogError, "%s(): Failed to read AGF node from block %lld: rc=%d", origin,
             static_cast<long long>(block), rc);
    return rc;
  }
  const u32 magic = be32_at(reader.buffer);
  if (magic != kTreeMagic) {
    snbf_log(kLogError, "%s(): Invalid B+tree node block magic: 0x%08x instead of 0x%08x", origin,
             magic, kTreeMagic);
    return -EINVAL;
  }
  const u32 capacity = block_level(reader) == 0 ? leaf_capacity(reader) : node_capacity(reader);
  if (block_records(reader) > capacity) {
    snbf_log(kLogError, "%s(): B+tree node block %lld has %d records, more than fit", origin,
             static_cast<long long>(block), static_cast<int>(block_records(reader)));
    return -EINVAL;
  }
  return records_rise(reader) ? 0 : fail_order(origin, block);
}

// The child of the last key that is not above the target, or the first one.
u32 child_for(const XfsReader& reader, u32 target) {
  u32 keys = 0;
  while (keys < block_records(reader) && start_of(reader, keys) <= target) ++keys;
  const u32 child = keys == 0 ? 0 : keys - 1;
  return be32_at(reader.buffer + kHeaderBytes + node_capacity(reader) * kRecordBytes +
                 child * kChildBytes);
}

// A walk through the leaves of one AG's tree.
struct Cursor {
  u64 ag_start;  // first block of the AG
  u64 limit;     // blocks of the AG
  u32 record;
  u32 records;  // of the leaf; record == records: none is left
  u64 start;    // of the current record
  u64 end;

  bool has_record() const { return record < records; }
  void take(const XfsReader& reader) {
    if (!has_record()) return;
    start = start_of(reader, record);
    end = start + count_of(reader, record);
  }
};

int enter_ag(XfsReader& reader, u32 ag, u32 target, Cursor& cursor) {
  cursor.ag_start = u64{ag} * reader.ag_blocks;
  cursor.limit = reader.ag_length[ag];
  cursor.record = 0;
  cursor.records = 0;
  // Behind the end of a short AG there is nothing to be found, chunk after chunk.
  if (target >= cursor.limit) return 0;
  const int rc = xfs_find_leaf(&reader, target, cursor.ag_start, reader.bno_root[ag]);
  if (rc < 0) return rc;
  cursor.records = block_records(reader);
  cursor.take(reader);
  return 0;
}

// The first record of the next leaf, if there is one. Records only ever rise, so a ring of leaves
// is found out.
int enter_sibling(const XfsReader& reader, Cursor& cursor) {
  const u32 sibling = right_sibling(reader);
  if (sibling == kNoSibling) return 0;
  const u64 last_start = cursor.start;
  const u64 block = cursor.ag_start + sibling;
  if (int rc = load_block(reader, kRead, block); rc < 0) return rc;
  cursor.record = 0;
  cursor.records = block_records(reader);
  cursor.take(reader);
  if (block_level(reader) == 0 && cursor.has_record() && cursor.start > last_start) return 0;
  return fail_order(kRead, block);
}

// The first record that ends behind p, or none.
int advance(const XfsReader& reader, u64 p, Cursor& cursor) {
  while (cursor.has_record() && cursor.end <= p) {
    ++cursor.record;
    if (cursor.has_record()) {
      cursor.take(reader);
    } else if (int rc = enter_sibling(reader, cursor); rc < 0) {
      return rc;
    }
  }
  return 0;
}

}  // namespace

}  // namespace snbf

using namespace snbf;

XfsReader* xfs_reader_init(plat_bdev* bdev, u32* block_size) {
  XfsReader* reader = heap_new<XfsReader>(PLAT_ALLOC_NORMAL);
  if (reader == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed", kInit);  // Kept: without a full stop.
    return nullptr;
  }
  ScopeExit drop_reader{[reader] { xfs_reader_destroy(reader); }};
  reader->bdev = bdev;
  reader->buffer = static_cast<u8*>(snbf_plat_virt_alloc(kFirstBufferBytes));
  if (reader->buffer == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
    return nullptr;
  }
  if (int rc = read_sector(*reader, reader->buffer, 0); rc < 0) {
    snbf_log(kLogError, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", kInit,
             device_major(*reader), device_minor(*reader), rc);
    return nullptr;
  }
  if (be32_at(reader->buffer) != kSuperMagic) {
    snbf_log(3, "%s(): hdd(%d, %d) doesn't have XFS.", kInit, device_major(*reader),
             device_minor(*reader));
    return nullptr;
  }
  const bool is_sane = take_superblock(*reader, reader->buffer);
  if (block_size != nullptr) *block_size = reader->block_size;
  if (!is_sane) {
    snbf_log(kLogError, "%s(): Superblock of hdd(%d, %d) is corrupt.", kInit, device_major(*reader),
             device_minor(*reader));
    return nullptr;
  }
  if (!fit_buffer(*reader)) return nullptr;
  log_superblock(*reader);
  if (!make_tables(*reader)) return nullptr;
  if (!take_ags(*reader)) return nullptr;
  drop_reader.dismiss();
  return reader;
}

int xfs_find_leaf(XfsReader* reader, u32 target, u64 ag_start, u32 node) {
  u32 level_above = kLevelsMax;
  for (;;) {
    if (int rc = load_block(*reader, kFind, ag_start + node); rc < 0) return rc;
    const u32 level = block_level(*reader);
    if (level >= level_above) return fail_order(kFind, ag_start + node);
    if (level == 0) return 0;
    level_above = level;
    node = child_for(*reader, target);
  }
}

int xfs_reader_read(XfsReader* reader, u64 first, u32 chunk_size, u8* bits, u32 chunk_count) {
  if (reader == nullptr) {
    snbf_log(kLogError, "%s(): Invalid reader's context NULL.", kRead);
    return -EINVAL;
  }
  if (int rc = check_reader_chunks(kRead, chunk_size, reader->block_size); rc != 0) return rc;
  const u64 blocks_per_chunk = chunk_size / reader->block_size;
  clear_chunks(bits, chunk_count);
  Cursor cursor = {};
  u64 p = 0;  // the chunk's first block within the AG
  for (u64 k = 0; k < chunk_count; ++k, p += blocks_per_chunk) {
    if (k == 0 || p >= cursor.limit) {
      const u64 block = (first + k) * blocks_per_chunk;
      const u64 ag = block / reader->ag_blocks;
      // Behind the last AG nothing is in use.
      if (ag >= reader->ag_count) return 0;
      p = block % reader->ag_blocks;
      const int rc = enter_ag(*reader, static_cast<u32>(ag), static_cast<u32>(p), cursor);
      if (rc < 0) return rc;
    }
    if (int rc = advance(*reader, p, cursor); rc < 0) return rc;
    const u64 end = p + blocks_per_chunk;
    const bool is_free = cursor.has_record() && cursor.start <= p && end <= cursor.end &&
                         end <= cursor.limit;  // behind it, the head of the next AG is in use
    if (!is_free) set_bit_of(bits, k);
  }
  return 0;
}

int xfs_reader_destroy(XfsReader* reader) {
  if (reader == nullptr) return 0;
  snbf_plat_virt_free(reader->buffer);
  snbf_plat_virt_free(reader->bno_root);
  snbf_plat_virt_free(reader->ag_length);
  snbf_plat_heap_free(reader);
  return 0;
}
