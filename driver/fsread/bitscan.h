// SPDX-License-Identifier: GPL-2.0-only
// A walk over the bitmaps of a file system, one after the other, bit for bit: a chunk is in use
// with the first of its blocks that is.
#pragma once

#include "fsread/reader.h"

namespace snbf {

// Where it stands: bit `bit` of bitmap `bitmap`, and the chunk that this block falls into.
struct BitScan {
  u8* bits;  // of the answer
  u32 chunk_count;
  u32 blocks_per_chunk;
  u64 bitmap;
  u64 bit;
  u64 chunk;  // bit of `bits`
  u64 left;   // blocks of that chunk from `bit` on

  // To the end of the bitmap in hand, whose first bit stands for block `base`. False: the scan is
  // over.
  bool walk(const u8* bitmap_bits, u64 bit_count, u64 base, u64 block_count) {
    while (bit < bit_count) {
      if (chunk >= chunk_count || base + bit >= block_count) return false;
      if (bit_of(bitmap_bits, bit)) {
        set_bit_of(bits, chunk);
        bit += left;
        next_chunk();
        continue;
      }
      ++bit;
      if (--left == 0) next_chunk();
    }
    // What is left of the chunk goes on in the next bitmap.
    bit -= bit_count;
    return true;
  }

 private:
  void next_chunk() {
    ++chunk;
    left = blocks_per_chunk;
  }
};

}  // namespace snbf
