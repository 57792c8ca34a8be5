// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/blkbmp.h"

#include "base/errno.h"
#include "base/string.h"
#include "core/log.h"
#include "core/memory.h"
#include "fsread/reader.h"

namespace snbf {

namespace {

constexpr const char* kRead = "snbf_blkbmp_read";

constexpr u32 kFragChunks = 1u << kBlkbmpFragShift;
constexpr int kFragBytes = kFragChunks / 8;
constexpr int kPieceBytesMin = 4;
constexpr int kPieceCountMax = 0x10000;
constexpr int kWorstCost = 0x80000;

enum class Kind { Zeros, Ones, Mixed };

// The piece's size is a power of two. Whole words first: a work buffer is aligned, and so are its
// pieces of eight bytes and more.
Kind kind_of(const u8* piece, int bytes) {
  if (piece[0] != 0 && piece[0] != 0xFF) return Kind::Mixed;
  const u8 first = piece[0];
  const u64 word = first == 0 ? 0 : ~u64{0};
  int at = 0;
  for (; at + 8 <= bytes; at += 8) {
    u64 here;
    mem_copy(&here, piece + at, sizeof(here));
    if (here != word) return Kind::Mixed;
  }
  for (; at < bytes; ++at) {
    if (piece[at] != first) return Kind::Mixed;
  }
  return first == 0 ? Kind::Zeros : Kind::Ones;
}

struct Census {
  int mixed = 0;
  bool has_zeros = false;
  bool has_ones = false;

  int slots() const { return mixed + (has_zeros ? 1 : 0) + (has_ones ? 1 : 0); }
};

Census count_pieces(const u8* bitmap, int piece_cnt, int piece_size) {
  Census census;
  for (int n = 0; n < piece_cnt; ++n) {
    switch (kind_of(bitmap + static_cast<size_t>(n) * piece_size, piece_size)) {
      case Kind::Zeros:
        census.has_zeros = true;
        break;
      case Kind::Ones:
        census.has_ones = true;
        break;
      case Kind::Mixed:
        ++census.mixed;
        break;
    }
  }
  return census;
}

// The slot of zeros, the slot of ones, and then each other piece in its order.
void fill_slots(snbf_blkbmp_frag& frag, const Census& census, const u8* bitmap, int piece_cnt,
                int piece_size) {
  const u16 ones_slot = census.has_zeros ? 1 : 0;
  const size_t size = static_cast<size_t>(piece_size);
  if (census.has_zeros) mem_set(frag.slots, 0, size);
  if (census.has_ones) mem_set(frag.slots + ones_slot * size, 0xFF, size);
  u16 next = static_cast<u16>(census.slots() - census.mixed);
  for (int n = 0; n < piece_cnt; ++n) {
    const u8* piece = bitmap + static_cast<size_t>(n) * size;
    switch (kind_of(piece, piece_size)) {
      case Kind::Zeros:
        frag.index[n] = 0;
        break;
      case Kind::Ones:
        frag.index[n] = ones_slot;
        break;
      case Kind::Mixed:
        mem_copy(frag.slots + next * size, piece, size);
        frag.index[n] = next++;
        break;
    }
  }
}

struct Cut {
  int piece_cnt;
  int piece_size;
};

constexpr int round_up_to_power_of_two(int value) {
  const int floor = 1 << log2_floor(static_cast<u64>(value));
  return floor == value ? floor : floor * 2;
}

// What follows the fragment's own bytes counts as used.
void pad(u8* bitmap, int bytes, const Cut& cut) {
  const int end = cut.piece_cnt * cut.piece_size;
  if (end > bytes) mem_set(bitmap + bytes, 0xFF, static_cast<size_t>(end - bytes));
}

// The cheapest cut into pieces of equal size, and its cost; a negative cost when none could be
// told.
int choose_cut(snbf_blkbmp_frag& frag, u8* bitmap, int bytes, Cut& best) {
  if (bytes < kPieceBytesMin - 1) {
    // Too small to be cut: one piece of the least size.
    best = {1, kPieceBytesMin};
    pad(bitmap, bytes, best);
    return create_sa(&frag, best.piece_cnt, best.piece_size, bitmap, 1);
  }
  int best_cost = kWorstCost;
  for (int count = 1; count <= kPieceCountMax; count *= 2) {
    const Cut cut = {count, round_up_to_power_of_two((bytes + count - 1) / count)};
    if (cut.piece_size < kPieceBytesMin) break;
    pad(bitmap, bytes, cut);
    const int cost = create_sa(&frag, cut.piece_cnt, cut.piece_size, bitmap, 1);
    snbf_log(4, "%d x %d (%d bytes) will take %d bytes", cut.piece_cnt, cut.piece_size, bytes,
             cost);
    if (cost < 0) return cost;
    if (cost < best_cost) {
      best = cut;
      best_cost = cost;
    }
  }
  return best_cost;
}

int build_fragment(const OpenReader& reader, snbf_blkbmp_frag& frag, u64 first, u32 chunk_size,
                   u8* work, u32 chunk_count) {
  if (int rc = reader.read(first, chunk_size, work, chunk_count); rc < 0) return rc;
  const int bytes = static_cast<int>((chunk_count + 7) >> 3);
  Cut cut = {};
  const int cost = choose_cut(frag, work, bytes, cut);
  if (cost < 0) return cost;
  snbf_log(3, "Block Bitmap Fragment: %dB => %dB (%d x %d) (%02d%%)", bytes, cost, cut.piece_cnt,
           cut.piece_size, 100 - cost * 100 / bytes);
  const int rc = create_sa(&frag, cut.piece_cnt, cut.piece_size, work, 0);
  return rc < 0 ? rc : 0;
}

int build_map(const OpenReader& reader, snbf_blkbmp& map, u64 device_bytes, u32 chunk_size) {
  const u64 chunks = (device_bytes + chunk_size - 1) >> log2_floor(chunk_size);
  if (chunks > 0x7FFFFFFF) {
    snbf_log(kLogError, "%s(): Too many chunks: %llu", kRead,
             static_cast<unsigned long long>(chunks));
    return -EINVAL;
  }
  map.chunks = static_cast<int>(chunks);
  map.frag_cnt = static_cast<int>((chunks + kFragChunks - 1) >> kBlkbmpFragShift);
  map.frags = static_cast<snbf_blkbmp_frag*>(
      kzalloc(static_cast<size_t>(map.frag_cnt) * sizeof(snbf_blkbmp_frag), PLAT_ALLOC_NORMAL));
  if (map.frags == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kRead);
    return -ENOMEM;
  }
  VirtBuffer work{kFragBytes};
  if (!work) {
    snbf_log(kLogError, "%s(): Memory allocation failed", kRead);  // Kept: without a full stop.
    return -ENOMEM;
  }
  u64 left = chunks;
  for (int n = 0; n < map.frag_cnt; ++n) {
    const u32 count = left < kFragChunks ? static_cast<u32>(left) : kFragChunks;
    const u64 first = static_cast<u64>(n) << kBlkbmpFragShift;
    const int rc = build_fragment(reader, map.frags[n], first, chunk_size, work.data(), count);
    if (rc < 0) return rc;
    left -= count;
  }
  return 0;
}

}  // namespace

}  // namespace snbf

using namespace snbf;

int create_sa(snbf_blkbmp_frag* frag, int piece_cnt, int piece_size, const u8* bitmap,
              int dry_run) {
  const Census census = count_pieces(bitmap, piece_cnt, piece_size);
  const int index_bytes = 2 * piece_cnt;
  const int cost = census.slots() * piece_size + index_bytes;
  if (dry_run != 0) return cost;
  frag->index = static_cast<u16*>(snbf_plat_virt_alloc(static_cast<size_t>(index_bytes)));
  frag->slots = static_cast<u8*>(snbf_plat_virt_alloc(static_cast<size_t>(cost - index_bytes)));
  if (frag->index == nullptr || frag->slots == nullptr) {
    // Whichever is there goes with the map.
    snbf_log(kLogError, "%s(): Memory allocation failed.", "create_sa");
    return -ENOMEM;
  }
  fill_slots(*frag, census, bitmap, piece_cnt, piece_size);
  frag->slot_shift = static_cast<int>(log2_floor(static_cast<u64>(piece_size)));
  frag->piece_cnt = piece_cnt;
  frag->piece_size = piece_size;
  frag->piece_shift = frag->slot_shift + 3;
  frag->bit_mask = piece_size * 8 - 1;
  return cost;
}

int snbf_blkbmp_init(snbf_blkbmp* map) {
  *map = {};
  return 0;
}

int snbf_blkbmp_read(snbf_blkbmp* map, plat_bdev* bdev, u32 chunk_size) {
  const OpenReader reader{bdev, nullptr};
  if (!reader) {
    const plat_devt device = snbf_plat_bdev_device(bdev);
    snbf_log(1, "%s(): Cannot recognize file system on hdd(%d, %d). Datablocks will be disabled",
             kRead, static_cast<int>(dev_major(device)), static_cast<int>(dev_minor(device)));
    return -EINVAL;
  }
  if (!is_chunk_size(chunk_size)) {
    snbf_log(kLogError, "%s(): Chunk size (%d) must be a power of 2", kRead,
             static_cast<int>(chunk_size));
    return -EINVAL;
  }
  if (int rc = build_map(reader, *map, snbf_plat_bdev_bytes(bdev), chunk_size); rc != 0) return rc;
  // Whoever sees this sees all of the map.
  __atomic_store_n(&map->valid, 1, __ATOMIC_RELEASE);
  return 0;
}

int snbf_blkbmp_destroy(snbf_blkbmp* map) {
  for (int n = 0; map->frags != nullptr && n < map->frag_cnt; ++n) {
    snbf_plat_virt_free(map->frags[n].index);
    snbf_plat_virt_free(map->frags[n].slots);
  }
  snbf_plat_heap_free(map->frags);
  return snbf_blkbmp_init(map);
}

int snbf_blkbmp_export(const snbf_blkbmp* map, u32 chunks_per_bit, u8* buffer, int buffer_size) {
  constexpr const char* kOrigin = "snbf_blkbmp_export";
  if (__atomic_load_n(&map->valid, __ATOMIC_ACQUIRE) == 0 && buffer != nullptr) {
    mem_set(buffer, 0xFF, static_cast<size_t>(buffer_size));
    return 0;
  }
  if (buffer == nullptr) {
    snbf_log(kLogError, "%s(): NULL buffer passed as input", kOrigin);
    return -EINVAL;
  }
  const u64 chunks = static_cast<u64>(map->chunks);
  const u64 bits = (chunks + chunks_per_bit - 1) / chunks_per_bit;
  const int bytes = static_cast<int>((bits + 7) / 8);
  if (buffer_size < bytes) {
    snbf_log(kLogError,
             "%s(): Insufficient buffer size passed as input: should be %d instead of %d", kOrigin,
             bytes, buffer_size);
    return -EINVAL;
  }
  mem_set(buffer, 0, static_cast<size_t>(bytes));
  for (u64 bit = 0; bit < bits; ++bit) {
    const u64 first = bit * chunks_per_bit;
    const u64 end = first + chunks_per_bit < chunks ? first + chunks_per_bit : chunks;
    for (u64 chunk = first; chunk < end; ++chunk) {
      if (snbf_blkbmp_is_used(map, chunk) == 0) continue;
      set_bit_of(buffer, bit);
      break;
    }
  }
  return 0;
}
