// SPDX-License-Identifier: GPL-2.0-only
// The data-block map of a snap: which chunks the file system on the partition uses.
//
// Fragments of 2^20 chunks, each cut into pieces of one size: an index names each piece's slot in a
// pool, where all pieces of zeros share one slot and all pieces of ones another. A map is never
// changed once it is valid. It is looked up without a lock, also while it is being built: `valid`
// is published last, and nothing else is looked at before it is seen. A valid one is destroyed
// only when no lookup can run any more.
#pragma once

#include "base/types.h"
#include "platform/block.h"

struct snbf_blkbmp_frag {
  int piece_cnt;
  int piece_shift;  // log2 of the chunks of a piece
  int piece_size;   // bytes
  int bit_mask;     // chunks of a piece - 1
  int slot_shift;   // log2 of piece_size
  snbf::u16* index;
  snbf::u8* slots;
};

struct snbf_blkbmp {
  int valid = 0;  // 0: nothing is known, and every chunk counts as used
  int chunks = 0;
  int frag_cnt = 0;
  snbf_blkbmp_frag* frags = nullptr;
};

constexpr int kBlkbmpFragShift = 20;

// 1 when the file system uses the chunk, or nothing is known of it. Any context.
inline int snbf_blkbmp_is_used(const snbf_blkbmp* map, snbf::u64 chunk) {
  if (__atomic_load_n(&map->valid, __ATOMIC_ACQUIRE) == 0) return 1;
  if (chunk >= static_cast<snbf::u64>(map->chunks)) return 1;
  const snbf_blkbmp_frag& frag = map->frags[chunk >> kBlkbmpFragShift];
  const snbf::u32 in_frag = static_cast<snbf::u32>(chunk) & ((1u << kBlkbmpFragShift) - 1);
  const snbf::u32 slot = frag.index[in_frag >> frag.piece_shift];
  const snbf::u32 bit = in_frag & static_cast<snbf::u32>(frag.bit_mask);
  const snbf::u8* piece = frag.slots + (static_cast<size_t>(slot) << frag.slot_shift);
  return piece[bit >> 3] >> (bit & 7) & 1;
}

// Clears the record: nothing is known. Always 0. Before snbf_blkbmp_read.
int snbf_blkbmp_init(snbf_blkbmp* map);
// Asks the readers of file systems for the chunks in use on the whole device, and builds the map.
// Sleeps, and reads the device. 0, or a negative error: the map then stays invalid, and what it
// holds goes with snbf_blkbmp_destroy.
int snbf_blkbmp_read(snbf_blkbmp* map, plat_bdev* bdev, snbf::u32 chunk_size);
// Frees what the map holds and clears it, also one that was built only in part. Always 0. May
// sleep.
int snbf_blkbmp_destroy(snbf_blkbmp* map);
// Writes the map, least significant bit first, with one bit for each `chunks_per_bit` chunks; ones
// all over while it is invalid. 0, or -EINVAL when the buffer is null or too small.
int snbf_blkbmp_export(const snbf_blkbmp* map, snbf::u32 chunks_per_bit, snbf::u8* buffer,
                       int buffer_size);
// Bytes that `piece_cnt` pieces of `piece_size` bytes of `bitmap` take in the two-level form;
// stores them so unless it is a dry run. -ENOMEM. May sleep.
int create_sa(snbf_blkbmp_frag* frag, int piece_cnt, int piece_size, const snbf::u8* bitmap,
              int dry_run);
