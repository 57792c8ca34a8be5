// SPDX-License-Identifier: GPL-2.0-only
#include "snap/cowqueue.h"

#include <new>

#include "base/assert.h"
#include "base/errno.h"
#include "base/units.h"
#include "core/log.h"
#include "util/pool.h"

namespace snbf {

namespace {

constexpr int kReserve = 8192;
constexpr BlockGeometry kBlocks{12};

using Bucket = List<CowBlock, CowInBucket>;
using RequestList = List<CowRequest, CowInQueue>;

constinit RecordPool request_pool;
constinit RecordPool block_pool;
// Live queues. Only init and destroy change it, one at a time under the life-cycle mutex.
constinit Atomic<int> queue_cnt;

struct Covered {
  SectorRange sectors;
  bool is_write;

  BlockSpan blocks() const { return kBlocks.covering(sectors); }
};

Covered covered_by(const plat_bio* bio) {
  plat_bio_info info;
  snbf_plat_bio_info(bio, &info);
  return {{Sector{info.sector}, info.size_bytes >> 9}, info.is_write != 0};
}

void destroy_pools() {
  block_pool.destroy();
  request_pool.destroy();
}

int create_pools() {
  if (block_pool.exists()) return 0;
  if (int rc = request_pool.create("cow_request", sizeof(CowRequest), kReserve); rc != 0) return rc;
  return block_pool.create("cow_block", sizeof(CowBlock), kReserve);
}

// As zero-filled memory; nobody else knows the record.
void clear(CowQueue* queue) { ::new (queue) CowQueue{}; }

Bucket& bucket_of(CowQueue& queue, u64 block) REQUIRES(queue.lock) {
  return queue.buckets[block & (kCowBuckets - 1)];
}

void free_blocks(CowRequest& request) {
  while (CowBlock* block = request.first_block) {
    request.first_block = block->next_of_request;
    block_pool.give_back(block);
  }
  request.last_block = nullptr;
}

void add_block(CowRequest& request, void* record, u64 first_number) {
  auto* block = ::new (record) CowBlock{};
  CowBlock* last = request.last_block;
  block->request = &request;
  block->number = last == nullptr ? first_number : last->number + 1;
  (last == nullptr ? request.first_block : last->next_of_request) = block;
  request.last_block = block;
}

// Request with its blocks, not queued yet; null without memory.
CowRequest* alloc_request(int minor, plat_bio* bio, AllocMode mode) {
  void* record = request_pool.take(mode);
  if (record == nullptr) return nullptr;
  auto* request = ::new (record) CowRequest{};
  request->minor = minor;
  request->bio = bio;
  const BlockSpan span = covered_by(bio).blocks();
  const auto keep = [&](void* block) { add_block(*request, block, span.first); };
  if (block_pool.take_all(span.count(), mode, keep, [&] { free_blocks(*request); })) return request;
  request_pool.give_back(request);
  return nullptr;
}

void insert_write(CowQueue& queue, CowRequest* request) REQUIRES(queue.lock) {
  queue.requests.push_back(request);
}

// Behind the last request that the read overlaps, which it must not overtake; else second, before
// all other work: the COW thread may be at the first.
void insert_read(CowQueue& queue, CowRequest* request, const SectorRange& sectors)
    REQUIRES(queue.lock) {
  CowRequest* place = queue.requests.last();
  while (place != nullptr && !covered_by(place->bio).sectors.overlaps(sectors)) {
    place = RequestList::prev(place);
  }
  if (place == nullptr) place = queue.requests.first();
  queue.requests.insert_after(place, request);
}

bool overlaps_queued(CowQueue& queue, const SectorRange& sectors, bool reads, bool writes)
    REQUIRES(queue.lock) {
  const BlockSpan span = kBlocks.covering(sectors);
  const u64 count = span.count();
  for (u64 n = 0; n < count; ++n) {
    const Bucket& bucket = bucket_of(queue, span.first + n);
    for (const CowBlock* entry = bucket.first(); entry != nullptr; entry = Bucket::next(entry)) {
      const Covered queued = covered_by(entry->request->bio);
      if ((queued.is_write ? writes : reads) && queued.sectors.overlaps(sectors)) return true;
    }
  }
  return false;
}

}  // namespace

}  // namespace snbf

using namespace snbf;

int snbf_cowqueue_init(CowQueue* queue, void* /*unused*/) {
  constexpr const char* kOrigin = "snbf_cowqueue_init";
  SNBF_ASSERT(queue != nullptr);
  clear(queue);
  queue_cnt.fetch_add(1);
  queue->lock.init("cowqueue_lock");
  queue->wait.init();
  // Zero-filled memory is a table of empty lists.
  auto* buckets = static_cast<Bucket*>(snbf_plat_virt_alloc(kCowBuckets * sizeof(Bucket)));
  if (buckets == nullptr) {
    snbf_log(kLogError, "%s(): Failed to create queue hash.", kOrigin);
  } else if (create_pools() != 0) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
  } else {
    queue->buckets = buckets;
    return 0;
  }
  if (queue_cnt.fetch_sub(1) == 1) destroy_pools();
  snbf_plat_virt_free(buckets);
  clear(queue);
  return -ENOMEM;
}

int snbf_cowqueue_append(CowQueue* queue, int minor, plat_bio* bio, AllocMode mode) {
  constexpr const char* kOrigin = "snbf_cowqueue_append";
  SNBF_ASSERT(queue != nullptr);
  SNBF_ASSERT(bio != nullptr);
  if (log_enabled(3)) snbf_log(3, "%s(): Appending new request...", kOrigin);
  const Covered covered = covered_by(bio);
  CowRequest* request = alloc_request(minor, bio, mode);
  if (request == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed", kOrigin);
    return -ENOMEM;
  }
  {
    SpinGuard hold{queue->lock};
    for (CowBlock* block = request->first_block; block != nullptr; block = block->next_of_request) {
      bucket_of(*queue, block->number).push_front(block);
    }
    queue->cowqueue_len.fetch_add(1);
    if (covered.is_write) queue->writes.fetch_add(1);
    if (covered.is_write || queue->requests.empty()) {
      insert_write(*queue, request);
    } else {
      insert_read(*queue, request, covered.sectors);
    }
  }
  queue->wait.wake();
  return 0;
}

int snbf_cowqueue_find_overlap_req(CowQueue* queue, int match_reads, int match_writes,
                                   plat_bio* bio) {
  SNBF_ASSERT(queue != nullptr);
  SNBF_ASSERT(bio != nullptr);
  SNBF_ASSERT(match_reads != 0 || match_writes != 0);
  // Whoever asks while a request is being appended may be answered either way.
  if (queue->length() == 0) return 0;
  const SectorRange sectors = covered_by(bio).sectors;
  SpinGuard hold{queue->lock};
  return overlaps_queued(*queue, sectors, match_reads != 0, match_writes != 0) ? 1 : 0;
}

int snbf_cowqueue_find_left_overlap(CowQueue* queue, const CowRequest* request, u32 pass) {
  const Covered covered = covered_by(request->bio);
  const BlockSpan span = covered.blocks();
  const u64 count = span.count();
  for (u64 n = 0; n < count; ++n) {
    const Bucket& bucket = bucket_of(*queue, span.first + n);
    for (const CowBlock* entry = bucket.first(); entry != nullptr; entry = Bucket::next(entry)) {
      const CowRequest* other = entry->request;
      if (other == request || other->left_by_pass != pass) continue;
      if (covered_by(other->bio).sectors.overlaps(covered.sectors)) return 1;
    }
  }
  return 0;
}

void snbf_cowqueue_untag(CowQueue* queue, int minor) {
  SpinGuard hold{queue->lock};
  for (CowRequest* request = queue->requests.first(); request != nullptr;
       request = RequestList::next(request)) {
    if (request->minor == minor) request->minor = -1;
  }
}

int snbf_cowqueue_remove(CowQueue* queue, CowRequest* request) {
  SNBF_ASSERT(queue != nullptr);
  SNBF_ASSERT(request != nullptr);
  if (snbf_plat_bio_is_write(request->bio)) queue->writes.fetch_sub(1);
  for (CowBlock* block = request->first_block; block != nullptr; block = block->next_of_request) {
    bucket_of(*queue, block->number).remove(block);
  }
  free_blocks(*request);
  queue->requests.remove(request);
  request_pool.give_back(request);
  queue->cowqueue_len.fetch_sub(1);
  return 0;
}

int snbf_cowqueue_purge(CowQueue* queue) {
  SNBF_ASSERT(queue != nullptr);
  snbf_log(1, "%s(): Purging all COW queue requests", "snbf_cowqueue_purge");
  SpinGuard hold{queue->lock};
  while (CowRequest* head = queue->requests.first()) {
    plat_bio* bio = head->bio;
    snbf_cowqueue_remove(queue, head);
    hold.unlocked([bio] { snbf_plat_bio_complete(bio, -EIO); });
  }
  return 0;
}

int snbf_cowqueue_destroy(CowQueue* queue) {
  constexpr const char* kOrigin = "snbf_cowqueue_destroy";
  SNBF_ASSERT(queue != nullptr);
  snbf_log(1, "%s(): Destroying COW queue", kOrigin);
  snbf_cowqueue_purge(queue);
  if (queue_cnt.fetch_sub(1) == 1) {
    snbf_log(2, "%s(): Destroying global COW allocators.", kOrigin);
    destroy_pools();
  }
  snbf_plat_virt_free(queue->buckets);
  clear(queue);
  return 0;
}
