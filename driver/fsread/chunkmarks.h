// SPDX-License-Identifier: GPL-2.0-only
// The answer of a reader as it is filled in: ranges of blocks in use become bits of chunks.
#pragma once

#include "base/string.h"
#include "fsread/reader.h"

namespace snbf {

constexpr u64 blocks_covering(u64 bytes, u32 block_size) {
  return (bytes + block_size - 1) / block_size;
}

// An answer begins with every chunk free.
inline void clear_chunks(u8* bits, u32 chunk_count) {
  if (chunk_count != 0) mem_set(bits, 0, (u64{chunk_count} + 7) / 8);
}

class ChunkMarks {
 public:
  // Clears the first (chunk_count + 7) / 8 bytes of `bits`. The chunk size has been checked.
  ChunkMarks(u8* bits, u64 first_chunk, u32 chunk_count, u32 chunk_size, u32 block_size)
      : bits_(bits),
        shift_(log2_floor(chunk_size / block_size)),
        first_block_(first_chunk << shift_),
        end_block_((first_chunk + chunk_count) << shift_) {
    clear_chunks(bits, chunk_count);
  }

  u64 first_block() const { return first_block_; }
  u64 end_block() const { return end_block_; }

  // Blocks first to end - 1 are in use, as far as they are asked for.
  void mark(u64 first, u64 end) {
    if (first < first_block_) first = first_block_;
    if (end > end_block_) end = end_block_;
    if (first >= end) return;
    u64 chunk = (first - first_block_) >> shift_;
    const u64 last = (end - 1 - first_block_) >> shift_;
    while (chunk <= last) {
      if ((chunk & 7) == 0 && last - chunk >= 7) {
        const u64 bytes = (last - chunk + 1) >> 3;
        mem_set(bits_ + (chunk >> 3), 0xFF, bytes);
        chunk += bytes << 3;
      } else {
        set_bit_of(bits_, chunk++);
      }
    }
  }

 private:
  u8* bits_;
  u32 shift_;  // log2 of the blocks of a chunk
  u64 first_block_;
  u64 end_block_;
};

}  // namespace snbf
