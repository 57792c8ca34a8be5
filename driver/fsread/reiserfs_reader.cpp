// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/reiserfs_reader.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "base/string.h"
#include "core/log.h"
#include "core/memory.h"
#include "fsread/bitscan.h"
#include "fsread/chunkmarks.h"
#include "fsread/reader.h"
#include "util/bdev.h"

namespace snbf {

namespace {

constexpr const char* kInit = "reiserfs_reader_init";
constexpr const char* kRead = "reiserfs_reader_read";

constexpr u32 kSuperOffset = 65536;
constexpr u32 kFirstBufferBytes = 4096;
constexpr u32 kSuperBytes = 80;
constexpr u32 kMagicAt = 52;
constexpr u32 kMagicEndAt = 63;
constexpr char kMagic[10] = "ReIsEr2Fs";
constexpr u32 kNoBitmap = 0xFFFFFFFF;
constexpr u32 kBlockSizeMin = 512;

}  // namespace

struct ReiserfsReader {
  u8 super[kSuperBytes];
  plat_bdev* bdev;
  u32 block_size;  // bytes
  u32 block_count;
  u32 free_blocks;
  u32 bitmap_count;
  u8* buffer;         // the bitmap in hand
  u32 cached_bitmap;  // its number; kNoBitmap: none
  u32 bits_per_bitmap;
  u32 first_bitmap_block;
};

namespace {

int device_major(const ReiserfsReader& reader) {
  return static_cast<int>(dev_major(snbf_plat_bdev_device(reader.bdev)));
}
int device_minor(const ReiserfsReader& reader) {
  return static_cast<int>(dev_minor(snbf_plat_bdev_device(reader.bdev)));
}

u64 bitmap_block(const ReiserfsReader& reader, u32 bitmap) {
  return bitmap == 0 ? reader.first_bitmap_block : u64{bitmap} * reader.bits_per_bitmap;
}

int read_bitmap(const ReiserfsReader& reader, u32 bitmap) {
  return snbf_bread(reader.bdev, reader.buffer, static_cast<int>(reader.block_size),
                    static_cast<s64>(bitmap_block(reader, bitmap)), 1);
}

bool read_superblock(ReiserfsReader& reader) {
  const int rc = snbf_bread(reader.bdev, reader.buffer, kFirstBufferBytes,
                            kSuperOffset / kFirstBufferBytes, 1);
  if (rc < 0) {
    snbf_log(kLogError, "%s(): Failed to read Super Block of hdd(%d, %d) at offset 65536: rc=%d",
             kInit, device_major(reader), device_minor(reader), rc);
    return false;
  }
  mem_copy(reader.super, reader.buffer, kSuperBytes);
  reader.super[kMagicEndAt] = 0;
  if (mem_compare(reader.super + kMagicAt, kMagic, sizeof(kMagic)) != 0) {
    snbf_log(3, "%s(): hdd(%d, %d) doesn't have ReiserFS.", kInit, device_major(reader),
             device_minor(reader));
    return false;
  }
  return true;
}

bool take_superblock(ReiserfsReader& reader, u32* block_size) {
  const u8* super = reader.super;
  reader.block_count = le32_at(super);
  reader.free_blocks = le32_at(super + 4);
  reader.block_size = le16_at(super + 44);
  reader.bitmap_count = le16_at(super + 70);
  if (block_size != nullptr) *block_size = reader.block_size;
  if (reader.block_size < kBlockSizeMin || !is_power_of_two(reader.block_size)) return false;
  reader.bits_per_bitmap = reader.block_size * 8;
  reader.first_bitmap_block = kSuperOffset / reader.block_size + 1;
  // Blocks that no bitmap covers would count as free.
  return reader.block_count != 0 &&
         u64{reader.bitmap_count} * reader.bits_per_bitmap >= reader.block_count;
}

bool fit_buffer(ReiserfsReader& reader) {
  if (reader.block_size == kFirstBufferBytes) return true;
  snbf_plat_virt_free(reader.buffer);
  reader.buffer = static_cast<u8*>(snbf_plat_virt_alloc(reader.block_size));
  if (reader.buffer != nullptr) return true;
  snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
  return false;
}

void log_superblock(const ReiserfsReader& reader) {
  const u8* super = reader.super;
  const int state = le16_at(super + 50);
  snbf_log(2, "%s(): Detected ReiserFS on hdd(%d, %d)", kInit, device_major(reader),
           device_minor(reader));
  snbf_log(2, "   magic=\"%s\"", reinterpret_cast<const char*>(super + kMagicAt));
  snbf_log(2, "   block_size=%d", static_cast<int>(reader.block_size));
  snbf_log(2, "   block_count=%d", static_cast<int>(reader.block_count));
  snbf_log(2, "   free_count=%d", static_cast<int>(reader.free_blocks));
  snbf_log(2, "   bitmaps=%d", static_cast<int>(reader.bitmap_count));
  snbf_log(2, "   state=%d (%s)", state, state == 1 ? "VALID" : "ERROR");
  snbf_log(2, "   version=%d", static_cast<int>(le16_at(super + 72)));
  snbf_log(2, "   inode_generation=%d", static_cast<int>(le32_at(super + 76)));
}

// Clear bits of the bitmap in hand. `left` are the blocks that are still to be counted: the count
// is over when they come to nothing, which they do only where the file system ends with a byte.
u32 count_clear_bits(const ReiserfsReader& reader, const u8* clear_bits, s64& left) {
  u32 clear = 0;
  for (u32 at = 0; at < reader.block_size && left != 0; ++at) {
    clear += clear_bits[reader.buffer[at]];
    left -= 8;
  }
  return clear;
}

bool agrees_with_bitmaps(const ReiserfsReader& reader) {
  u8 clear_bits[256];
  clear_bits[0] = 8;
  for (u32 value = 1; value < 256; ++value) {
    clear_bits[value] = static_cast<u8>(clear_bits[value / 2] - value % 2);
  }
  u32 clear = 0;
  s64 left = reader.block_count;
  for (u32 bitmap = 0; bitmap < reader.bitmap_count && left != 0; ++bitmap) {
    if (int rc = read_bitmap(reader, bitmap); rc < 0) {
      snbf_log(kLogError, "%s(): Failed to read Bitmap #%d (from block %d): rc=%d", kInit,
               static_cast<int>(bitmap), static_cast<int>(bitmap_block(reader, bitmap)), rc);
      return false;
    }
    clear += count_clear_bits(reader, clear_bits, left);
  }
  if (clear == reader.free_blocks) return true;
  snbf_log(kLogError,
           "%s(): Unexpected inconsistency of ReiserFS SB on hdd=(%d, %d) says that it has %d "
           "blocks, but bitmaps argue for %d",
           kInit, device_major(reader), device_minor(reader), static_cast<int>(reader.free_blocks),
           static_cast<int>(clear));
  return false;
}

int load_bitmap(ReiserfsReader& reader, u32 bitmap) {
  if (bitmap == reader.cached_bitmap) return 0;
  reader.cached_bitmap = kNoBitmap;
  const int rc = read_bitmap(reader, bitmap);
  if (rc < 0) {
    snbf_log(kLogError, "%s(): Failed to read Bitmap #%d: rc=%d", kRead, static_cast<int>(bitmap),
             rc);
    return rc;
  }
  reader.cached_bitmap = bitmap;
  return rc;
}

}  // namespace

}  // namespace snbf

using namespace snbf;

ReiserfsReader* reiserfs_reader_init(plat_bdev* bdev, u32* block_size) {
  ReiserfsReader* reader = heap_new<ReiserfsReader>(PLAT_ALLOC_NORMAL);
  if (reader == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed", kInit);  // Kept: without a full stop.
    return nullptr;
  }
  ScopeExit drop_reader{[reader] { reiserfs_reader_destroy(reader); }};
  reader->bdev = bdev;
  reader->cached_bitmap = kNoBitmap;
  reader->buffer = static_cast<u8*>(snbf_plat_virt_alloc(kFirstBufferBytes));
  if (reader->buffer == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
    return nullptr;
  }
  if (!read_superblock(*reader)) return nullptr;
  if (!take_superblock(*reader, block_size)) {
    snbf_log(kLogError, "%s(): Superblock of hdd(%d, %d) is corrupt.", kInit, device_major(*reader),
             device_minor(*reader));
    return nullptr;
  }
  if (!fit_buffer(*reader)) return nullptr;
  log_superblock(*reader);
  if (!agrees_with_bitmaps(*reader)) return nullptr;
  drop_reader.dismiss();
  return reader;
}

int reiserfs_reader_read(ReiserfsReader* reader, u64 first, u32 chunk_size, u8* bits,
                         u32 chunk_count) {
  if (reader == nullptr) {
    snbf_log(kLogError, "%s(): Invalid reader's context NULL.", kRead);
    return -EINVAL;
  }
  if (int rc = check_reader_chunks(kRead, chunk_size, reader->block_size); rc != 0) return rc;
  const u32 blocks_per_chunk = chunk_size / reader->block_size;
  const u64 first_block = first * blocks_per_chunk;
  BitScan scan = {.bits = bits,
                  .chunk_count = chunk_count,
                  .blocks_per_chunk = blocks_per_chunk,
                  .bitmap = first_block / reader->bits_per_bitmap,
                  .bit = first_block % reader->bits_per_bitmap,
                  .chunk = 0,
                  .left = blocks_per_chunk};
  clear_chunks(bits, chunk_count);
  int rc = 0;
  for (; scan.bitmap < reader->bitmap_count; ++scan.bitmap) {
    rc = load_bitmap(*reader, static_cast<u32>(scan.bitmap));
    if (rc < 0) return rc;
    const u64 base = scan.bitmap * reader->bits_per_bitmap;
    if (!scan.walk(reader->buffer, reader->bits_per_bitmap, base, reader->block_count)) break;
  }
  return rc;
}

int reiserfs_reader_destroy(ReiserfsReader* reader) {
  if (reader == nullptr) return 0;
  snbf_plat_virt_free(reader->buffer);
  snbf_plat_heap_free(reader);
  return 0;
}
