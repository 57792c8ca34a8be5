#include "snap/cowqueue.h"

#include <algorithm>
#include <memory>

#include "parts_rig.h"

namespace snbf::sim {
namespace {

// A queue with requests of its own making.
class QueueParts : public LoggedParts {
 public:
  explicit QueueParts(Sim& kernel) : sim(kernel), queue(std::make_unique<CowQueue>()) {
    EXPECT_EQ(snbf_cowqueue_init(queue.get(), nullptr), 0);
  }
  ~QueueParts() {
    if (queue != nullptr) {
      EXPECT_EQ(snbf_cowqueue_destroy(queue.get()), 0);
    }
  }

  plat_bio* append(Op op, u64 sector, u32 bytes, int tag = 5) {
    ios.emplace_back();
    plat_bio* bio = sim.make_bio(op, sector, bytes, dev(100, 0), &ios.back());
    EXPECT_EQ(snbf_cowqueue_append(queue.get(), tag, bio, PLAT_ALLOC_NOIO), 0);
    return bio;
  }
  std::vector<plat_bio*> order() {
    SpinGuard hold{queue->lock};
    std::vector<plat_bio*> bios;
    for (CowRequest* request = queue->requests.first(); request != nullptr;
         request = List<CowRequest, CowInQueue>::next(request)) {
      bios.push_back(request->bio);
    }
    return bios;
  }
  CowRequest* head() {
    SpinGuard hold{queue->lock};
    return queue->requests.first();
  }
  bool overlaps(int reads, int writes, Op op, u64 sector, u32 bytes) {
    plat_bio* bio = sim.make_bio(op, sector, bytes);
    const int found = snbf_cowqueue_find_overlap_req(queue.get(), reads, writes, bio);
    sim.drop_bio(bio);
    return found != 0;
  }

  Sim& sim;
  std::unique_ptr<CowQueue> queue;
  std::vector<Io> ios;
};

using Order = std::vector<plat_bio*>;

SIM_TEST(CowQueueAppend, KeepsTheTagAndOneEntryForEachBlock) {
  QueueParts parts(sim);
  parts.append(Op::Write, 4, 8 * 512, -3);
  const CowRequest* request = parts.head();
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(request->minor, -3);
  ASSERT_NE(request->first_block, nullptr);
  EXPECT_EQ(request->first_block->number, 0u);
  ASSERT_NE(request->first_block->next_of_request, nullptr);
  EXPECT_EQ(request->first_block->next_of_request->number, 1u);
  EXPECT_EQ(request->first_block->next_of_request, request->last_block);
  EXPECT_EQ(request->last_block->next_of_request, nullptr);
  EXPECT_EQ(parts.queue->length(), 1);
  EXPECT_TRUE(sim.log().contains("snbf_cowqueue_append(): Appending new request..."));
}

SIM_TEST(CowQueueAppend, WritesGoToTheTail) {
  QueueParts parts(sim);
  plat_bio* a = parts.append(Op::Write, 0, 4096);
  plat_bio* b = parts.append(Op::Discard, 8, 4096);
  plat_bio* c = parts.append(Op::Write, 0, 4096);
  EXPECT_EQ(parts.order(), (Order{a, b, c}));
}

SIM_TEST(CowQueueAppend, AReadGoesToTheHeadOfAnEmptyQueue) {
  QueueParts parts(sim);
  plat_bio* read = parts.append(Op::Read, 0, 4096);
  EXPECT_EQ(parts.order(), (Order{read}));
}

SIM_TEST(CowQueueAppend, AReadThatOverlapsNothingBecomesSecond) {
  QueueParts parts(sim);
  plat_bio* a = parts.append(Op::Write, 0, 4096);
  plat_bio* b = parts.append(Op::Write, 8, 4096);
  plat_bio* c = parts.append(Op::Write, 16, 4096);
  plat_bio* read = parts.append(Op::Read, 100, 4096);
  EXPECT_EQ(parts.order(), (Order{a, read, b, c}));
  plat_bio* later = parts.append(Op::Read, 200, 4096);
  EXPECT_EQ(parts.order(), (Order{a, later, read, b, c}));
}

SIM_TEST(CowQueueAppend, AReadGoesBehindTheLastRequestItOverlaps) {
  QueueParts parts(sim);
  plat_bio* a = parts.append(Op::Write, 8, 4096);
  plat_bio* b = parts.append(Op::Write, 8, 4096);
  plat_bio* c = parts.append(Op::Write, 16, 4096);
  plat_bio* read = parts.append(Op::Read, 15, 512);
  EXPECT_EQ(parts.order(), (Order{a, b, read, c}));
  plat_bio* last = parts.append(Op::Read, 15, 1024);
  EXPECT_EQ(parts.order(), (Order{a, b, read, c, last}));
  plat_bio* first = parts.append(Op::Read, 7, 1024);
  EXPECT_EQ(parts.order(), (Order{a, b, first, read, c, last}));
}

SIM_TEST(CowQueueAppend, WakesTheOneWhoWaits) {
  QueueParts parts(sim);
  bool woken = false;
  Task* sleeper = sim.spawn("sleeper", [&] {
    parts.queue->wait.wait_idle([&] { return parts.queue->length() > 0; });
    woken = true;
  });
  sim.sleep_us(1000);
  EXPECT_FALSE(woken);
  parts.append(Op::Write, 0, 4096);
  sim.join(sleeper);
  EXPECT_TRUE(woken);
}

SIM_TEST(CowQueueAppend, LeavesTheQueueAloneWhenTheReserveIsGone) {
  QueueParts parts(sim);
  sim.set_memory_pressure(true);
  parts.ios.reserve(16);
  for (int i = 0; i < 8; ++i) parts.append(Op::Discard, static_cast<u64>(i) * 8192, 4 << 20);
  plat_bio* bio = sim.make_bio(Op::Discard, 1 << 20, 8192);
  EXPECT_EQ(snbf_cowqueue_append(parts.queue.get(), 1, bio, PLAT_ALLOC_ATOMIC), -ENOMEM);
  EXPECT_EQ(sim.log().count("snbf_cowqueue_append(): Memory allocation failed", 3), 1);
  EXPECT_FALSE(sim.log().contains("Memory allocation failed."));
  EXPECT_EQ(parts.queue->length(), 8);
  EXPECT_FALSE(parts.overlaps(1, 1, Op::Write, 1 << 20, 4096));

  // Whoever may sleep waits for what is given back.
  Task* waiter = sim.spawn("waiter", [&] {
    EXPECT_EQ(snbf_cowqueue_append(parts.queue.get(), 1, bio, PLAT_ALLOC_NOIO), 0);
  });
  sim.sleep_us(10'000);
  EXPECT_EQ(parts.queue->length(), 8);
  plat_bio* head_bio = nullptr;
  {
    SpinGuard hold{parts.queue->lock};
    CowRequest* head = parts.queue->requests.first();
    head_bio = head->bio;
    snbf_cowqueue_remove(parts.queue.get(), head);
  }
  snbf_plat_bio_complete(head_bio, 0);
  sim.join(waiter);
  EXPECT_EQ(parts.queue->length(), 8);
  sim.set_memory_pressure(false);
}

// Eight large requests together want more than the reserve; each must get its share in turn.
SIM_TEST(CowQueueAppend, ManyLargeRequestsShareTheReserveWithoutWaitingForEachOther) {
  QueueParts parts(sim);
  sim.set_memory_pressure(true);
  constexpr int kTasks = 12;
  int completed = 0;
  for (int i = 0; i < kTasks; ++i) {
    plat_bio* bio = sim.make_bio(Op::Discard, static_cast<u64>(i) * 8200 + 1, 4 << 20);
    sim.spawn("writer", [&parts, bio] {
      EXPECT_EQ(snbf_cowqueue_append(parts.queue.get(), 1, bio, PLAT_ALLOC_NOIO), 0);
    });
  }
  while (completed < kTasks) {
    parts.queue->wait.wait([&] { return parts.queue->length() > 0; });
    plat_bio* bio = nullptr;
    {
      SpinGuard hold{parts.queue->lock};
      CowRequest* head = parts.queue->requests.first();
      bio = head->bio;
      snbf_cowqueue_remove(parts.queue.get(), head);
    }
    snbf_plat_bio_complete(bio, 0);
    ++completed;
  }
  sim.join_all();
  sim.set_memory_pressure(false);
}

SIM_TEST(CowQueueOverlap, TestsTheSectorsOfTheKindsAskedFor) {
  QueueParts parts(sim);
  parts.append(Op::Write, 10, 1024);
  parts.append(Op::Read, 40, 1024);
  EXPECT_TRUE(parts.overlaps(0, 1, Op::Write, 11, 512));
  EXPECT_FALSE(parts.overlaps(1, 0, Op::Write, 11, 512));
  EXPECT_TRUE(parts.overlaps(1, 0, Op::Write, 40, 512));
  EXPECT_FALSE(parts.overlaps(0, 1, Op::Write, 40, 512));
  EXPECT_TRUE(parts.overlaps(1, 1, Op::Read, 0, 32768));
  // Neighbours in the same block do not meet.
  EXPECT_FALSE(parts.overlaps(1, 1, Op::Write, 8, 1024));
  EXPECT_FALSE(parts.overlaps(1, 1, Op::Write, 12, 512));
}

SIM_TEST(CowQueueOverlap, ASharedBucketIsNoOverlap) {
  QueueParts parts(sim);
  parts.append(Op::Write, 0, 4096);
  EXPECT_FALSE(parts.overlaps(1, 1, Op::Write, 16384 * 8, 4096));
  EXPECT_FALSE(parts.overlaps(1, 1, Op::Write, 2 * 16384 * 8, 4096));
}

SIM_TEST(CowQueueOverlap, OfNothingIsNothingButInsideABlock) {
  QueueParts parts(sim);
  parts.append(Op::Write, 0, 2 * 4096);
  EXPECT_FALSE(parts.overlaps(1, 1, Op::Flush, 0, 0));
  EXPECT_FALSE(parts.overlaps(1, 1, Op::Flush, 8, 0));
  // The documented bounds put an empty request at sector 4 into block 0.
  EXPECT_TRUE(parts.overlaps(1, 1, Op::Flush, 4, 0));
}

SIM_TEST(CowQueueOverlap, OneKindAtLeastIsAskedFor) {
  QueueParts parts(sim);
  sim.expect_fatal("match_reads != 0 || match_writes != 0");
  parts.overlaps(0, 0, Op::Write, 0, 512);
}

// Against a list of ranges.
SIM_TEST(CowQueueOverlap, AgreesWithAPlainSearch) {
  QueueParts parts(sim);
  struct Range {
    u64 first, last;
    bool write;
  };
  std::vector<Range> queued;
  for (int i = 0; i < 40; ++i) {
    const u64 sector = sim.random(2000);
    const u32 sectors = 1 + static_cast<u32>(sim.random(40));
    const bool write = sim.random(2) != 0;
    parts.append(write ? Op::Discard : Op::Read, sector, sectors * 512);
    queued.push_back({sector, sector + sectors - 1, write});
  }
  for (int i = 0; i < 300; ++i) {
    const u64 sector = sim.random(2100);
    const u32 sectors = 1 + static_cast<u32>(sim.random(20));
    const bool reads = sim.random(2) != 0;
    const bool writes = !reads || sim.random(2) != 0;
    const bool expected = std::any_of(queued.begin(), queued.end(), [&](const Range& range) {
      return (range.write ? writes : reads) && range.first <= sector + sectors - 1 &&
             sector <= range.last;
    });
    EXPECT_EQ(parts.overlaps(reads, writes, Op::Read, sector, sectors * 512), expected);
  }
}

SIM_TEST(CowQueueUntag, TakesOneSnapsTagAndLeavesTheRequests) {
  QueueParts parts(sim);
  for (const int tag : {7, 8, 7}) parts.append(Op::Write, parts.ios.size() * 16, 4096, tag);
  snbf_cowqueue_untag(parts.queue.get(), 7);
  std::vector<int> tags;
  {
    SpinGuard hold{parts.queue->lock};
    for (CowRequest* request = parts.queue->requests.first(); request != nullptr;
         request = List<CowRequest, CowInQueue>::next(request)) {
      tags.push_back(request->minor);
    }
  }
  EXPECT_EQ(tags, (std::vector<int>{-1, 8, -1}));
}

SIM_TEST(CowQueuePurge, FailsEveryRequest) {
  QueueParts parts(sim);
  parts.append(Op::Write, 0, 4096);
  parts.append(Op::Write, 8, 4096);
  parts.append(Op::Read, 16, 4096);
  EXPECT_EQ(snbf_cowqueue_purge(parts.queue.get()), 0);
  EXPECT_TRUE(sim.log().contains("snbf_cowqueue_purge(): Purging all COW queue requests"));
  EXPECT_EQ(parts.queue->length(), 0);
  for (const Io& io : parts.ios) EXPECT_EQ(io.wait(), -EIO);
  EXPECT_FALSE(parts.overlaps(1, 1, Op::Write, 0, 65536));
}

SIM_TEST(CowQueueDestroy, PurgesAndTakesTheAllocatorsWithTheLast) {
  QueueParts parts(sim);
  auto second = std::make_unique<CowQueue>();
  ASSERT_EQ(snbf_cowqueue_init(second.get(), nullptr), 0);
  parts.append(Op::Write, 0, 4096);
  sim.log().clear();
  ASSERT_EQ(snbf_cowqueue_destroy(parts.queue.get()), 0);
  parts.queue.reset();
  EXPECT_EQ(parts.ios[0].wait(), -EIO);
  EXPECT_TRUE(sim.log().contains("snbf_cowqueue_destroy(): Destroying COW queue"));
  EXPECT_FALSE(sim.log().contains("Destroying global COW allocators."));
  ASSERT_EQ(snbf_cowqueue_destroy(second.get()), 0);
  EXPECT_EQ(second->buckets, nullptr);
  EXPECT_TRUE(sim.log().contains("snbf_cowqueue_destroy(): Destroying global COW allocators."));
  ASSERT_EQ(snbf_cowqueue_init(second.get(), nullptr), 0);
  ASSERT_EQ(snbf_cowqueue_destroy(second.get()), 0);
}

SIM_TEST(CowQueueInit, LeavesNothingBehindWithoutMemory) {
  LoggedParts parts;
  auto queue = std::make_unique<CowQueue>();
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    sim.log().clear();
                    const int rc = snbf_cowqueue_init(queue.get(), nullptr);
                    if (rc == 0) {
                      snbf_cowqueue_destroy(queue.get());
                      return;
                    }
                    EXPECT_EQ(rc, -ENOMEM);
                    EXPECT_EQ(queue->buckets, nullptr);
                    EXPECT_EQ(sim.log().count(
                                  nth == 1 ? "snbf_cowqueue_init(): Failed to create queue hash."
                                           : "snbf_cowqueue_init(): Memory allocation failed.",
                                  3),
                              1);
                  });
       ++nth) {
  }
  EXPECT_EQ(nth, 6);  // the hash, two caches, two pools
}

SIM_TEST(CowQueueInit, AFailureLeavesTheAllocatorsToTheOthers) {
  QueueParts parts(sim);
  auto second = std::make_unique<CowQueue>();
  sim.fail_nth(Fault::Virt, 1);
  EXPECT_EQ(snbf_cowqueue_init(second.get(), nullptr), -ENOMEM);
  parts.append(Op::Write, 0, 4096);
  EXPECT_TRUE(parts.overlaps(0, 1, Op::Write, 0, 512));
}

}  // namespace
}  // namespace snbf::sim
