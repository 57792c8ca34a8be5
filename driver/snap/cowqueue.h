// SPDX-License-Identifier: GPL-2.0-only
// The COW queue of a filter node: requests that may not proceed before the COW thread has done
// something for them.
//
// Requests stand in service order; beside the list a hash of the 4096-byte blocks that they cover
// tells quickly whether a new request overlaps a queued one. The queue owns the requests in it. Its
// lock is never held across an allocation, a completion or a sleep.
#pragma once

#include "base/atomic.h"
#include "base/list.h"
#include "core/sync.h"
#include "platform/block.h"

namespace snbf {

struct CowInQueue;
struct CowInBucket;
struct CowRequest;

// One 4096-byte block that a queued request covers.
struct CowBlock : ListLink<CowInBucket> {
  CowBlock* next_of_request = nullptr;
  u64 number = 0;
  CowRequest* request = nullptr;
};
static_assert(sizeof(CowBlock) == 40);

struct CowRequest : ListLink<CowInQueue> {
  CowBlock* first_block = nullptr;  // ascending
  CowBlock* last_block = nullptr;
  int minor = 0;  // of the snap into whose COW data file a write's chunks go; negative: none
  u32 left_by_pass = 0;  // the last pass over the queue that came by and left it waiting
  plat_bio* bio = nullptr;
};
static_assert(sizeof(CowRequest) == 48);

constexpr u32 kCowBuckets = 16384;

struct CowQueue {
  SpinLock lock;
  List<CowRequest, CowInQueue> requests GUARDED_BY(lock);
  List<CowBlock, CowInBucket>* buckets PT_GUARDED_BY(lock) = nullptr;  // kCowBuckets of them
  Atomic<int> cowqueue_len;
  Atomic<int> writes;  // of the requests
  WaitQueue wait;  // the COW thread sleeps here

  // Any context, without the lock.
  int length() const { return cowqueue_len.load(); }
};

}  // namespace snbf

// 0 or -ENOMEM. May sleep. `unused` is not looked at. The first queue makes the caches and pools
// that all share and the last destruction removes them: callers are serialised by the life-cycle
// mutex.
int snbf_cowqueue_init(snbf::CowQueue* queue, void* unused);
// 0, and the queue owns the request; or -ENOMEM, and nothing is queued. Sleeps for memory unless
// the mode is Atomic.
int snbf_cowqueue_append(snbf::CowQueue* queue, int minor, plat_bio* bio, snbf::AllocMode mode);
// 1 when a queued request of a kind asked for overlaps the sectors of `bio`, else 0. One kind at
// least is asked for.
int snbf_cowqueue_find_overlap_req(snbf::CowQueue* queue, int match_reads, int match_writes,
                                   plat_bio* bio);
// 1 when a request that this pass has left waiting overlaps `request`.
int snbf_cowqueue_find_left_overlap(snbf::CowQueue* queue, const snbf::CowRequest* request,
                                    snbf::u32 pass) REQUIRES(queue->lock);
// Lets every request that is tagged with this minor be tagged with none.
void snbf_cowqueue_untag(snbf::CowQueue* queue, int minor);
// Takes a request out and frees its records. The request itself is the caller's from now on.
int snbf_cowqueue_remove(snbf::CowQueue* queue, snbf::CowRequest* request) REQUIRES(queue->lock);
// Fails every queued request with -EIO.
int snbf_cowqueue_purge(snbf::CowQueue* queue);
// Purges, and leaves the record as before its init.
int snbf_cowqueue_destroy(snbf::CowQueue* queue);
