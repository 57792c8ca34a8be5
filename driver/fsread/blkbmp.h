// SPDX-License-Identifier: GPL-2.0-only
// The data-block map of a snap: which chunks the file system on the partition uses.
//
// Fragments of 2^20 chunks, each cut into pieces of one size: an index names each piece's slot in a
// pool, where all pieces of zeros share one slot and all pieces of ones another. A map is never
// changed once it is valid; it is looked up without a lock.
#pragma once

#include "base/types.h"

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
  if (map->valid == 0 || chunk >= static_cast<snbf::u64>(map->chunks)) return 1;
  const snbf_blkbmp_frag& frag = map->frags[chunk >> kBlkbmpFragShift];
  const snbf::u32 in_frag = static_cast<snbf::u32>(chunk) & ((1u << kBlkbmpFragShift) - 1);
  const snbf::u32 slot = frag.index[in_frag >> frag.piece_shift];
  const snbf::u32 bit = in_frag & static_cast<snbf::u32>(frag.bit_mask);
  const snbf::u8* piece = frag.slots + (static_cast<size_t>(slot) << frag.slot_shift);
  return piece[bit >> 3] >> (bit & 7) & 1;
}
