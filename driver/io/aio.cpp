// SPDX-License-Identifier: GPL-2.0-only
#include "io/aio.h"

#include "base/assert.h"
#include "base/atomic.h"
#include "base/errno.h"
#include "base/units.h"
#include "core/log.h"
#include "core/sync.h"
#include "util/pool.h"

namespace snbf {

struct AioBlock : ListLink<AioInBucket> {
  AioBlock* next_of_item = nullptr;
  u64 number = 0;
  AioItem* item = nullptr;
};
static_assert(sizeof(AioBlock) == 40);

struct AioItem : ListLink<AioInFlight> {
  AioBlock* blocks = nullptr;
  AioTracker* tracker = nullptr;
  plat_bio* original = nullptr;  // null once the clone has completed: it then blocks nobody
  plat_bio* clone = nullptr;
  const plat_bio_hooks* saved_hooks = nullptr;  // the clone's own, from before ours
};
static_assert(sizeof(AioItem) == 56);

namespace {

constexpr int kReserve = 4096;
constexpr BlockGeometry kBlocks{12};

using Bucket = List<AioBlock, AioInBucket>;

constinit RecordPool item_pool;
constinit RecordPool block_pool;
// Live trackers. Only init and destroy change it, one at a time under the life-cycle mutex.
constinit Atomic<int> aio_cnt;
// Over the items, blocks and buckets of every tracker; completions take it in interrupts.
constinit IrqSpinLock aio_spin;

constexpr plat_bio_hooks kCloneHooks = {snbf_aio_end_io, snbf_aio_destructor};

void destroy_pools() {
  block_pool.destroy();
  item_pool.destroy();
}

int create_pools() {
  if (block_pool.exists()) return 0;
  aio_spin.init("aio_spin");
  if (int rc = item_pool.create("aio_item", sizeof(AioItem), kReserve); rc != 0) return rc;
  return block_pool.create("aio_block_cache", sizeof(AioBlock), kReserve);
}

SectorRange sectors_of(const plat_bio* bio) {
  plat_bio_info info;
  snbf_plat_bio_info(bio, &info);
  return {Sector{info.sector}, info.size_bytes >> 9};
}

Bucket& bucket_of(AioTracker& tracker, u64 block) {
  return tracker.buckets[block & (kAioBuckets - 1)];
}

void free_blocks(AioItem& item) {
  while (AioBlock* block = item.blocks) {
    item.blocks = block->next_of_item;
    block_pool.give_back(block);
  }
}

void free_item(AioItem* item) {
  free_blocks(*item);
  item_pool.give_back(item);
}

// Item with `count` block entries, in no list yet; null without memory.
AioItem* alloc_item(u64 count, AllocMode mode) {
  void* record = item_pool.take(mode);
  if (record == nullptr) return nullptr;
  auto* item = ::new (record) AioItem{};
  const auto keep = [item](void* block_record) {
    auto* block = ::new (block_record) AioBlock{};
    block->item = item;
    block->next_of_item = item->blocks;
    item->blocks = block;
  };
  if (block_pool.take_all(count, mode, keep, [item] { free_blocks(*item); })) return item;
  item_pool.give_back(item);
  return nullptr;
}

// A block number only picks a bucket, which strangers share; the sectors decide.
bool overlaps_in_flight(AioTracker& tracker, BlockSpan span, const SectorRange& sectors)
    REQUIRES(aio_spin) {
  const u64 count = span.count();
  for (u64 n = 0; n < count; ++n) {
    const Bucket& bucket = bucket_of(tracker, span.first + n);
    for (const AioBlock* entry = bucket.first(); entry != nullptr; entry = Bucket::next(entry)) {
      const plat_bio* original = entry->item->original;
      if (original != nullptr && sectors_of(original).overlaps(sectors)) return true;
    }
  }
  return false;
}

void install(AioTracker& tracker, AioItem& item, BlockSpan span, plat_bio* original,
             plat_bio* clone) REQUIRES(aio_spin) {
  u64 number = span.first;
  for (AioBlock* block = item.blocks; block != nullptr; block = block->next_of_item) {
    block->number = number++;
    bucket_of(tracker, block->number).push_back(block);
  }
  item.tracker = &tracker;
  item.original = original;
  item.clone = clone;
  item.saved_hooks = snbf_plat_bio_hooks(clone);
  snbf_plat_bio_set_hooks(clone, &kCloneHooks, &item);
  tracker.items.push_back(&item);
}

bool has_items(const AioTracker& tracker) {
  IrqSpinGuard hold{aio_spin};
  return !tracker.items.empty();
}

// Waits until nothing in flight overlaps, and registers the clone in the same holding of the lock.
// False: there is an overlap, and the caller would not wait.
bool register_clone(AioTracker& tracker, AioItem& item, plat_bio* original, plat_bio* clone,
                    const SectorRange& sectors, bool wait) {
  const BlockSpan span = kBlocks.covering(sectors);
  IrqSpinGuard hold{aio_spin};
  while (overlaps_in_flight(tracker, span, sectors)) {
    if (!wait) return false;
    // Yielding sleeps: the task's plugged requests go out first, and one of them may be waited for
    // here.
    hold.unlocked([] {
      snbf_plat_yield();
      if (log_enabled(3)) snbf_log(3, "%s(): waiting...", "snbf_aio_clone");
    });
  }
  install(tracker, item, span, original, clone);
  return true;
}

}  // namespace

}  // namespace snbf

using namespace snbf;

int snbf_aio_init(AioTracker* tracker) {
  constexpr const char* kOrigin = "snbf_aio_init";
  SNBF_ASSERT(tracker != nullptr);
  snbf_log(2, "%s(): Initializing AIO tracker.", kOrigin);
  aio_cnt.fetch_add(1);
  // Zero-filled memory is a table of empty lists.
  auto* buckets = static_cast<Bucket*>(snbf_plat_virt_alloc(kAioBuckets * sizeof(Bucket)));
  if (buckets == nullptr || create_pools() != 0) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    snbf_plat_virt_free(buckets);
    // With other trackers alive the pools are theirs and stay.
    if (aio_cnt.fetch_sub(1) == 1) destroy_pools();
    return -ENOMEM;
  }
  tracker->buckets = buckets;
  return 0;
}

void snbf_aio_destroy(AioTracker* tracker) {
  constexpr const char* kOrigin = "snbf_aio_destroy";
  SNBF_ASSERT(tracker != nullptr);
  snbf_log(2, "%s(): Destroying AIO tracker.", kOrigin);
  // The caller of a request that has just completed may be here before its clone is gone.
  while (has_items(*tracker)) snbf_plat_yield();
  snbf_plat_virt_free(tracker->buckets);
  tracker->buckets = nullptr;
  if (aio_cnt.fetch_sub(1) != 1) return;
  snbf_log(2, "%s(): Destroying global AIO allocators.", kOrigin);
  destroy_pools();
}

bool snbf_aio_has_writes(const AioTracker* tracker) {
  IrqSpinGuard hold{aio_spin};
  for (const AioItem* item = tracker->items.first(); item != nullptr;
       item = List<AioItem, AioInFlight>::next(item)) {
    if (item->original != nullptr && snbf_plat_bio_is_write(item->clone)) return true;
  }
  return false;
}

plat_bio* snbf_aio_clone(AioTracker* tracker, plat_bio* bio, int wait, AllocMode mode) {
  constexpr const char* kOrigin = "snbf_aio_clone";
  SNBF_ASSERT(tracker != nullptr);
  SNBF_ASSERT(bio != nullptr);
  const SectorRange sectors = sectors_of(bio);
  AioItem* item = alloc_item(kBlocks.covering(sectors).count(), mode);
  if (item == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return nullptr;
  }
  plat_bio* clone = snbf_plat_bio_clone(bio, mode);
  if (clone == nullptr) {
    snbf_log(kLogError, "%s(): Failed to clone BIO.", kOrigin);
    free_item(item);
    return nullptr;
  }
  if (!register_clone(*tracker, *item, bio, clone, sectors, wait != 0)) {
    snbf_plat_bio_put(clone);
    free_item(item);
    return nullptr;
  }
  return clone;
}

int snbf_aio_end_io(plat_bio* clone, plat_u32 /*bytes_done*/, int error) {
  SNBF_ASSERT(clone != nullptr);
  if (snbf_plat_bio_bytes_left(clone) > 0) return 1;
  auto* item = static_cast<AioItem*>(snbf_plat_bio_context(clone));
  plat_bio* original = nullptr;
  {
    IrqSpinGuard hold{aio_spin};
    original = item->original;
    item->original = nullptr;
  }
  if (original != nullptr) snbf_plat_bio_complete(original, error);
  snbf_plat_bio_put(clone);
  return 0;
}

void snbf_aio_destructor(plat_bio* clone) {
  auto* item = static_cast<AioItem*>(snbf_plat_bio_context(clone));
  const plat_bio_hooks* saved_hooks = item->saved_hooks;
  {
    // Freed in the same holding: once the tracker is seen empty, nothing of it is left with
    // anybody.
    IrqSpinGuard hold{aio_spin};
    item->tracker->items.remove(item);
    for (AioBlock* block = item->blocks; block != nullptr; block = block->next_of_item) {
      bucket_of(*item->tracker, block->number).remove(block);
    }
    free_item(item);
  }
  if (saved_hooks == nullptr) return;
  snbf_plat_bio_set_hooks(clone, saved_hooks, nullptr);
  if (saved_hooks->destroy != nullptr) saved_hooks->destroy(clone);
}
