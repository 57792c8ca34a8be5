// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/selftest.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "core/log.h"
#include "core/memory.h"
#include "fsread/blkbmp.h"
#include "fsread/reader.h"
#include "platform/log.h"
#include "platform/task.h"
#include "util/file.h"
#include "util/path.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_blkbmp_test";

constexpr u64 kBlocksMax = 0x7FFFFFFF;
constexpr u32 kChunkShiftMax = 30;
constexpr u32 kChunksPerPortion[] = {1, 8, 61, 1024};
constexpr u32 kPortionChunksMax = 1024;
constexpr u64 kPortions = 16;  // of one chunk size and portion size
// A power of two, as chunks are: each of its multiples begins a chunk, or each chunk begins at one.
constexpr u64 kBlocksBetweenYields = 1 << 16;

// The comparisons go through the blocks of a whole device without reading any of it.
void yield_now_and_then(u64 block) {
  if (block % kBlocksBetweenYields == 0) snbf_plat_yield();
}

// The device block by block as the reader told it, which everything else is compared with.
struct BlockMap {
  const OpenReader& reader;
  u32 block_size;
  u64 blocks;  // of the device
  const u8* bits;

  u64 chunks(u32 shift) const { return (blocks + (u64{1} << shift) - 1) >> shift; }
  // A block of that chunk of 2^shift blocks is in use.
  bool uses(u64 chunk, u32 shift) const {
    const u64 end = (chunk + 1) << shift;
    for (u64 block = chunk << shift; block < end && block < blocks; ++block) {
      yield_now_and_then(block);
      if (bit_of(bits, block)) return true;
    }
    return false;
  }
};

// Chunks of 1, 2, 8, 32, ... blocks.
constexpr u32 next_shift(u32 shift) { return shift == 0 ? 1 : shift + 2; }

bool has_chunks_of(const BlockMap& map, u32 shift) {
  return shift + log2_floor(map.block_size) <= kChunkShiftMax && map.chunks(shift) > 1;
}

int compare_with_map(const BlockMap& blocks, const snbf_blkbmp& map) {
  for (u64 block = 0; block < blocks.blocks; ++block) {
    yield_now_and_then(block);
    const int expected = bit_of(blocks.bits, block) ? 1 : 0;
    const int found = snbf_blkbmp_is_used(&map, block);
    if (found == expected) continue;
    snbf_log(kLogError, "%s(): Bit %d is misrepresented by blkbmp: %d instead of %d", kOrigin,
             static_cast<int>(block), found, expected);
    return -EINVAL;
  }
  return 0;
}

// The whole device in chunks.
int compare_chunks(const BlockMap& blocks, u32 shift) {
  const u64 chunks = blocks.chunks(shift);
  VirtBuffer bits{(chunks + 7) / 8};
  if (!bits) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  const int rc =
      blocks.reader.read(0, blocks.block_size << shift, bits.data(), static_cast<u32>(chunks));
  if (rc < 0) return rc;
  for (u64 chunk = 0; chunk < chunks; ++chunk) {
    const bool is_set = bit_of(bits.data(), chunk);
    const bool is_used = blocks.uses(chunk, shift);
    if (!is_set && is_used) {
      snbf_log(kLogError,
               "Oops. Bit %d of chunk bitmap is clear, but some bits in the block bitmap are set.",
               static_cast<int>(chunk));
      return -EINVAL;
    }
    if (is_set && !is_used && !blocks.reader.rounds_up()) {
      snbf_log(kLogError,
               "Oops. Bit %d of chunk bitmap is set, but all bits in the block bitmap are clear.",
               static_cast<int>(chunk));
      return -EINVAL;
    }
  }
  return 0;
}

int compare_portion(const BlockMap& blocks, u32 shift, u64 first, u32 count, const u8* bits) {
  for (u64 k = 0; k < count; ++k) {
    const u64 chunk = first + k;
    if (chunk >= blocks.chunks(shift)) break;
    const bool is_set = bit_of(bits, k);
    const bool is_used = blocks.uses(chunk, shift);
    if (is_set == is_used || (is_set && blocks.reader.rounds_up())) continue;
    const int number = static_cast<int>(chunk);
    if (is_used) {
      snbf_log(kLogError, "%s(): Bitmap inconsistency for chunk %d: expected 1, got 0", kOrigin,
               number);
    } else {
      snbf_log(kLogError, "%s(): Bitmap inconsistency for chunk %d: expected 0, got 1", kOrigin,
               number);
    }
    return -EINVAL;
  }
  return 0;
}

// Everybody may put names into that folder: one that is there, be it a link to somebody's file, is
// taken away, and the file is a new one.
snbf_file* open_portion_file(u32 chunk_size, u32 count) {
  char path[48];
  snbf_plat_snprintf(path, sizeof(path), "/tmp/bmp.%d.%d", static_cast<int>(chunk_size),
                     static_cast<int>(count));
  snbf_unlink(path);
  return snbf_fopen(path, PLAT_O_WRONLY | PLAT_O_CREAT | PLAT_O_EXCL | PLAT_O_LARGEFILE, 0600);
}

// Portions of `count` chunks from places all over the device; the last one reaches its end.
int compare_portions(const BlockMap& blocks, u32 shift, u32 count, u8* bits) {
  const u64 chunks = blocks.chunks(shift);
  const u64 last = chunks > count ? chunks - count : 0;
  snbf_file* file = open_portion_file(blocks.block_size << shift, count);
  ScopeExit close{[file] {
    if (file != nullptr) snbf_fclose(file);
  }};
  const int bytes = static_cast<int>((count + 7) / 8);
  u64 position = 0;
  for (u64 n = 0; n < kPortions; ++n) {
    const u64 first = last * n / (kPortions - 1);
    const int rc = blocks.reader.read(first, blocks.block_size << shift, bits, count);
    if (rc < 0) return rc;
    if (file != nullptr) snbf_fwrite(file, position, bits, bytes);
    position += static_cast<u64>(bytes);
    if (int bad = compare_portion(blocks, shift, first, count, bits); bad != 0) return bad;
  }
  return 0;
}

int compare_all_portions(const BlockMap& blocks, u32 shift) {
  VirtBuffer bits{(kPortionChunksMax + 7) / 8};
  if (!bits) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  for (u32 count : kChunksPerPortion) {
    if (int rc = compare_portions(blocks, shift, count, bits.data()); rc != 0) return rc;
  }
  return 0;
}

int compare_export(const BlockMap& blocks, const snbf_blkbmp& map, u32 shift) {
  const u64 extents = blocks.chunks(shift);
  const size_t bytes = (extents + 7) / 8;
  VirtBuffer bits{bytes};
  if (!bits) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  const int rc = snbf_blkbmp_export(&map, 1u << shift, bits.data(), static_cast<int>(bytes));
  if (rc != 0) return rc;
  for (u64 extent = 0; extent < extents; ++extent) {
    if (bit_of(bits.data(), extent) == blocks.uses(extent, shift)) continue;
    snbf_log(kLogError,
             "%s(): Failed to downsample bitmap for extent of size %d: bit %d doesn't match.",
             kOrigin, static_cast<int>(blocks.block_size << shift), static_cast<int>(extent));
    return -EINVAL;
  }
  return 0;
}

int compare_everything(const BlockMap& blocks, const snbf_blkbmp& map) {
  if (int rc = compare_with_map(blocks, map); rc != 0) return rc;
  for (u32 shift = 0; shift == 0 || has_chunks_of(blocks, shift); shift = next_shift(shift)) {
    if (int rc = compare_chunks(blocks, shift); rc != 0) return rc;
    if (int rc = compare_all_portions(blocks, shift); rc != 0) return rc;
    if (int rc = compare_export(blocks, map, shift); rc != 0) return rc;
  }
  return 0;
}

int check_block_size(u32 block_size) {
  if (block_size == 0) {
    snbf_log(kLogError, "%s(): NULL FS block size returned from FS reader.", kOrigin);
    return -EINVAL;
  }
  if (!is_power_of_two(block_size)) {
    snbf_log(kLogError, "%s(): Not pow2 FS block size returned from FS reader.", kOrigin);
    return -EINVAL;
  }
  return 0;
}

}  // namespace

}  // namespace snbf

using namespace snbf;

int snbf_blkbmp_test(plat_bdev* bdev) {
  const int major = static_cast<int>(dev_major(snbf_plat_bdev_device(bdev)));
  const int minor = static_cast<int>(dev_minor(snbf_plat_bdev_device(bdev)));
  snbf_log(1, "%s(): Testing datablock bitmap code for hdd(%d, %d)", kOrigin, major, minor);
  u32 block_size = 0;
  const OpenReader reader{bdev, &block_size};
  if (!reader) {
    snbf_log(1, "%s(): Cannot recognize file system on hdd(%d, %d). Datablocks will be disabled",
             kOrigin, major, minor);
    return -EINVAL;
  }
  if (int rc = check_block_size(block_size); rc != 0) return rc;
  const u64 blocks = (snbf_plat_bdev_bytes(bdev) + block_size - 1) / block_size;
  if (blocks > kBlocksMax) {
    snbf_log(kLogError, "%s(): Too many blocks: %llu", kOrigin,
             static_cast<unsigned long long>(blocks));
    return -EINVAL;
  }
  VirtBuffer bits{(blocks + 7) / 8};
  if (!bits) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  if (int rc = reader.read(0, block_size, bits.data(), static_cast<u32>(blocks)); rc < 0) return rc;
  snbf_blkbmp map;
  snbf_blkbmp_init(&map);
  ScopeExit destroy{[&map] { snbf_blkbmp_destroy(&map); }};
  if (int rc = snbf_blkbmp_read(&map, bdev, block_size); rc < 0) return rc;
  const BlockMap told = {
      .reader = reader, .block_size = block_size, .blocks = blocks, .bits = bits.data()};
  if (int rc = compare_everything(told, map); rc != 0) return rc;
  snbf_log(1, "%s(): Datablock bitmap code tests completed successfully", kOrigin);
  return 0;
}
