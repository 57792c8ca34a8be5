// SPDX-License-Identifier: GPL-2.0-only
// What a COW thread works with, allocated once as it starts: so that it never waits for memory that
// only it can free.
#pragma once

#include "core/sync.h"
#include "platform/block.h"
#include "platform/file.h"
#include "snap/chunkset.h"

namespace snbf {

constexpr u32 kGroupShift = 22;  // log2 of the bytes of a COW group
constexpr u32 kGroupBytes = 1u << kGroupShift;
static_assert(kGroupBytes == kGroupPages * kPageBytes);

// Pieces of the COW data file that are written together, in one file operation: many enough for any
// disk to be busy, and few enough for a slow one to be through with them long before the operation
// counts as stalled.
constexpr u32 kPiecesAtOnce = 128;

// Bytes of the partition, which its end may cut short.
struct Slice {
  u64 first;
  u64 bytes;
};

struct WorkSet {
  void* pages[kGroupPages];
  plat_bio* bios[kGroupPages];
  ChunkSet chunks;  // of the group that is being put together or copied
  Slice slices[kGroupPages];  // of the partition, as the group is copied
  plat_file_piece pieces[kGroupPages];  // of the COW data file: neighbouring slices are one
  plat_direct_batch* direct;
  u8* bounce;  // one page
  Atomic<int> outstanding;
  plat_completion all_done;

  // Reads with the first `count` requests, all in flight together, and waits for them. False when one
  // failed; `is_uptodate` of each says which.
  bool read_all(u32 count, plat_bdev* bdev);
};

// Null without memory. Its allocations start no I/O.
WorkSet* make_work_set();
void free_work_set(WorkSet* work);

}  // namespace snbf

// Completion of a request that read_all has sent; its context is the work set.
int snbf_end_cow_read_sync(plat_bio* bio, plat_u32 bytes_done, int error);
