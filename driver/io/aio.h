// SPDX-License-Identifier: GPL-2.0-only
// The cloned-request tracker: one for each filter node.
//
// What a filter node passes on to its partition goes as a clone of the caller's request. The
// tracker keeps each clone in flight with the 4 KiB blocks that it covers, so that a request that
// overlaps one in flight waits for it or is refused: two overlapping writes never reach the
// partition out of order.
//
// A clone blocks others from the moment it is handed out until it completes; its records are freed
// when its last reference goes. One interrupt-safe spin lock guards the lists of all trackers, and
// nothing is allocated, cloned, waited for or completed under it.
#pragma once

#include "base/list.h"
#include "base/types.h"
#include "platform/block.h"

namespace snbf {

struct AioItem;
struct AioBlock;
struct AioInFlight;
struct AioInBucket;

struct AioTracker {
  List<AioItem, AioInFlight> items;
  List<AioBlock, AioInBucket>* buckets = nullptr;  // kAioBuckets of them, zero-filled memory
};

constexpr u32 kAioBuckets = 4096;

}  // namespace snbf

// 0 or -ENOMEM. May sleep. The first tracker makes the caches and pools that all share and the last
// destruction removes them: callers are serialised by the life-cycle mutex.
int snbf_aio_init(snbf::AioTracker* tracker);
// Every request has completed, or will without the caller's help. May sleep.
void snbf_aio_destroy(snbf::AioTracker* tracker);
// Whether the clone of a write has been handed out and has not completed. Any context.
bool snbf_aio_has_writes(const snbf::AioTracker* tracker);
// A clone to point at the partition and submit, whose completion completes `bio`; null without
// memory. With `wait` it sleeps until nothing in flight overlaps; without, an overlap is answered
// with null. Sleeps for memory unless the mode is Atomic.
plat_bio* snbf_aio_clone(snbf::AioTracker* tracker, plat_bio* bio, int wait, snbf::AllocMode mode);

// Installed on every clone; any context. A clone that is not sent is given up with
// snbf_plat_bio_put: it then completes nothing.
int snbf_aio_end_io(plat_bio* clone, plat_u32 bytes_done, int error);
void snbf_aio_destructor(plat_bio* clone);
