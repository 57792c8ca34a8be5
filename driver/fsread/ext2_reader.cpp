// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/ext2_reader.h"

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

constexpr u32 kSuperBytes = 1024;  // at this offset, too
constexpr u16 kMagic = 0xEF53;
constexpr u32 kDescShift = 5;  // log2 of the bytes of a group descriptor
constexpr u32 kLogBlockSizeMax = 6;
constexpr u32 kMetaBlockGroups = 0x10;
constexpr u32 kNoGroup = 0xFFFFFFFF;

// The table of descriptors takes at most this part of the device. Of a real file system it takes
// less than a tenth of that; a superblock that asks for more is no reason to fill the memory.
constexpr u64 kDescShareOfDevice = 1024;

}  // namespace

struct Ext2Reader {
  plat_bdev* bdev;
  u32 block_size;  // bytes
  u32 blocks_count;
  u32 first_data_block;
  u32 blocks_per_group;
  u32 inodes_per_group;
  u32 group_count;
  u32 desc_per_block;
  u32 desc_blocks;
  u8* descs;         // the table of group descriptors
  u8* bitmap;        // of the cached group
  u32 cached_group;  // kNoGroup: none
  u8* bit_count;     // set bits of each byte value
};

namespace {

int device_major(const Ext2Reader& reader) {
  return static_cast<int>(dev_major(snbf_plat_bdev_device(reader.bdev)));
}
int device_minor(const Ext2Reader& reader) {
  return static_cast<int>(dev_minor(snbf_plat_bdev_device(reader.bdev)));
}

constexpr const char* kInit = "ext2_reader_init";

bool take_superblock(Ext2Reader& reader, const u8* super, u32* block_size) {
  const u32 log_block_size = le32_at(super + 24);
  reader.blocks_count = le32_at(super + 4);
  reader.first_data_block = le32_at(super + 20);
  reader.blocks_per_group = le32_at(super + 32);
  reader.inodes_per_group = le32_at(super + 40);
  const bool size_is_sane = log_block_size <= kLogBlockSizeMax;
  reader.block_size = size_is_sane ? 1024u << log_block_size : 0;
  if (block_size != nullptr) *block_size = reader.block_size;
  if (!size_is_sane || reader.blocks_per_group == 0 || reader.inodes_per_group == 0 ||
      reader.blocks_count == 0 || reader.first_data_block >= reader.blocks_count) {
    snbf_log(kLogError, "%s(): Superblock of hdd(%d, %d) is corrupt.", kInit, device_major(reader),
             device_minor(reader));
    return false;
  }
  if ((le32_at(super + 96) & kMetaBlockGroups) != 0) {
    snbf_log(kLogError, "%s(): Sorry, we don't support ext2/ext3 with meta block groups.", kInit);
    return false;
  }
  const u64 data_blocks = reader.blocks_count - reader.first_data_block;
  reader.group_count =
      static_cast<u32>((data_blocks + reader.blocks_per_group - 1) / reader.blocks_per_group);
  reader.desc_per_block = reader.block_size >> kDescShift;
  reader.desc_blocks = static_cast<u32>((u64{reader.group_count} + reader.desc_per_block - 1) /
                                        reader.desc_per_block);
  return true;
}

void log_superblock(const Ext2Reader& reader) {
  const u64 megabytes = u64{reader.blocks_count} * reader.block_size >> 20;
  snbf_log(2, "   magic=0x%04x", unsigned{kMagic});
  snbf_log(2, "   block_size=%d", static_cast<int>(reader.block_size));
  snbf_log(2, "   blocks_count=%d (%lldMB)", static_cast<int>(reader.blocks_count),
           static_cast<long long>(megabytes));
  snbf_log(2, "   blocks_per_group=%d", static_cast<int>(reader.blocks_per_group));
  snbf_log(2, "   group_desc_count=%d", static_cast<int>(reader.group_count));
  snbf_log(2, "   desc_blocks=%d", static_cast<int>(reader.desc_blocks));
}

bool fail_descriptors(const Ext2Reader& reader, int rc) {
  snbf_log(kLogError, "%s(): Failed to read Block Group Descriptors of hdd(%d, %d): rc=%d", kInit,
           device_major(reader), device_minor(reader), rc);
  return false;
}

bool read_descriptors(Ext2Reader& reader) {
  const u64 device_bytes = snbf_plat_bdev_bytes(reader.bdev);
  const u64 bytes = u64{reader.desc_blocks} * reader.block_size;
  const u64 first = u64{reader.first_data_block} + 1;
  if (first * reader.block_size + bytes > device_bytes) return fail_descriptors(reader, -EIO);
  if (bytes > device_bytes / kDescShareOfDevice + reader.block_size) {
    snbf_log(kLogError, "%s(): Superblock of hdd(%d, %d) is corrupt.", kInit, device_major(reader),
             device_minor(reader));
    return false;
  }
  reader.descs = static_cast<u8*>(snbf_plat_virt_alloc(bytes));
  if (reader.descs == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
    return false;
  }
  const int rc = snbf_bread(reader.bdev, reader.descs, static_cast<int>(reader.block_size),
                            static_cast<s64>(first), static_cast<int>(reader.desc_blocks));
  return rc >= 0 || fail_descriptors(reader, rc);
}

bool make_buffers(Ext2Reader& reader) {
  reader.cached_group = kNoGroup;
  reader.bitmap = static_cast<u8*>(snbf_plat_virt_alloc(reader.block_size));
  reader.bit_count = static_cast<u8*>(snbf_plat_heap_alloc(256, PLAT_ALLOC_NORMAL));
  if (reader.bitmap == nullptr || reader.bit_count == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
    return false;
  }
  reader.bit_count[0] = 0;
  for (u32 value = 1; value < 256; ++value) {
    reader.bit_count[value] = static_cast<u8>(reader.bit_count[value / 2] + value % 2);
  }
  return true;
}

// The bitmap of a group comes into the cache. A bitmap that disagrees with the group's descriptor
// says nothing: the whole group then counts as used.
int load_bitmap(Ext2Reader& reader, u32 group) {
  constexpr const char* kOrigin = "ext2_reader_read";
  if (group == reader.cached_group) return 0;
  const u8* desc = reader.descs + (static_cast<size_t>(group) << kDescShift);
  reader.cached_group = kNoGroup;
  const int rc = snbf_bread(reader.bdev, reader.bitmap, static_cast<int>(reader.block_size),
                            s64{le32_at(desc)}, 1);
  if (rc < 0) {
    snbf_log(kLogError, "%s(): Failed to read Data Bitmap of Block Group %d: rc=%d", kOrigin,
             static_cast<int>(group), rc);
    return rc;
  }
  u32 clear_bits = reader.block_size * 8;
  for (u32 at = 0; at < reader.block_size; ++at) clear_bits -= reader.bit_count[reader.bitmap[at]];
  const u32 free_blocks = le16_at(desc + 12);
  if (clear_bits != free_blocks) {
    snbf_log(kLogError,
             "%s(): Number of free blocks (%d) in block group %d is inconsistent with the bitmap "
             "(%d).",
             kOrigin, static_cast<int>(free_blocks), static_cast<int>(group),
             static_cast<int>(clear_bits));
    mem_set(reader.bitmap, 0xFF, reader.block_size);
  }
  reader.cached_group = group;
  return rc;
}

// Blocks 0 to the first data block lie in front of every group's bitmap.
void mark_front(const Ext2Reader& reader, u64 first, const BitScan& scan) {
  const u64 last = reader.first_data_block / scan.blocks_per_chunk;
  for (u64 chunk = first; chunk <= last && chunk - first < scan.chunk_count; ++chunk) {
    set_bit_of(scan.bits, chunk - first);
  }
}

void seek(const Ext2Reader& reader, u64 first, BitScan& scan) {
  const u64 block = first * scan.blocks_per_chunk;
  if (block > reader.first_data_block) {
    const u64 offset = block - reader.first_data_block;
    scan.bitmap = offset / reader.blocks_per_group;
    scan.bit = offset % reader.blocks_per_group;
    scan.chunk = 0;
    scan.left = scan.blocks_per_chunk;
  } else {
    scan.bitmap = 0;
    scan.bit = 0;
    scan.chunk = reader.first_data_block / scan.blocks_per_chunk - first;
    scan.left = scan.blocks_per_chunk - reader.first_data_block % scan.blocks_per_chunk;
  }
}

}  // namespace

}  // namespace snbf

using namespace snbf;

Ext2Reader* ext2_reader_init(plat_bdev* bdev, u32* block_size) {
  const int major = static_cast<int>(dev_major(snbf_plat_bdev_device(bdev)));
  const int minor = static_cast<int>(dev_minor(snbf_plat_bdev_device(bdev)));
  VirtBuffer super{kSuperBytes};
  if (!super) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
    return nullptr;
  }
  if (int rc = snbf_bread(bdev, super.data(), kSuperBytes, 1, 1); rc < 0) {
    snbf_log(kLogError, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", kInit, major,
             minor, rc);
    return nullptr;
  }
  if (le16_at(super.data() + 56) != kMagic) {
    snbf_log(3, "%s(): hdd(%d, %d) doesn't have ext2/ext3 FS.", kInit, major, minor);
    return nullptr;
  }
  snbf_log(2, "%s(): Detected ext2/ext3 FS on hdd(%d, %d)", kInit, major, minor);
  Ext2Reader* reader = heap_new<Ext2Reader>(PLAT_ALLOC_NORMAL);
  if (reader == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
    return nullptr;
  }
  ScopeExit drop_reader{[reader] { ext2_reader_destroy(reader); }};
  reader->bdev = bdev;
  if (!take_superblock(*reader, super.data(), block_size)) return nullptr;
  log_superblock(*reader);
  if (!read_descriptors(*reader)) return nullptr;
  if (!make_buffers(*reader)) return nullptr;
  drop_reader.dismiss();
  return reader;
}

int ext2_reader_read(Ext2Reader* reader, u64 first, u32 chunk_size, u8* bits, u32 chunk_count) {
  constexpr const char* kOrigin = "ext2_reader_read";
  if (reader == nullptr) {
    snbf_log(kLogError, "%s(): Invalid reader's context NULL.", kOrigin);
    return -EINVAL;
  }
  if (int rc = check_reader_chunks(kOrigin, chunk_size, reader->block_size); rc != 0) return rc;
  BitScan scan = {.bits = bits,
                  .chunk_count = chunk_count,
                  .blocks_per_chunk = chunk_size / reader->block_size,
                  .bitmap = 0,
                  .bit = 0,
                  .chunk = 0,
                  .left = 0};
  clear_chunks(bits, chunk_count);
  mark_front(*reader, first, scan);
  seek(*reader, first, scan);
  int rc = 0;
  for (; scan.bitmap < reader->group_count; ++scan.bitmap) {
    rc = load_bitmap(*reader, static_cast<u32>(scan.bitmap));
    if (rc < 0) return rc;
    const u64 base = scan.bitmap * reader->blocks_per_group + reader->first_data_block;
    if (!scan.walk(reader->bitmap, u64{reader->block_size} * 8, base, reader->blocks_count)) break;
  }
  return rc;
}

int ext2_reader_destroy(Ext2Reader* reader) {
  if (reader == nullptr) return 0;
  snbf_plat_virt_free(reader->descs);
  snbf_plat_virt_free(reader->bitmap);
  snbf_plat_heap_free(reader->bit_count);
  snbf_plat_heap_free(reader);
  return 0;
}
