#include "io/aio.h"

#include <memory>

#include "parts_rig.h"

namespace snbf::sim {
namespace {

constexpr u64 kDeviceBytes = 64 << 20;

// A tracker over a device. Requests are the caller's, clones go to the device.
class TrackerParts : public LoggedParts {
 public:
  explicit TrackerParts(Sim& kernel)
      : sim(kernel), disk(kernel, {.name = "sda1", .bytes = kDeviceBytes}) {
    EXPECT_EQ(snbf_aio_init(&tracker), 0);
  }
  ~TrackerParts() {
    sim.join_all();
    disk.device->release_all();
    snbf_aio_destroy(&tracker);
  }

  // The clone of a new request, not sent yet; null leaves no request either.
  plat_bio* clone(Op op, u64 sector, u32 bytes, int wait, AllocMode mode = PLAT_ALLOC_NOIO,
                  Io* io = nullptr) {
    plat_bio* bio = sim.make_bio(op, sector, bytes, dev(100, 0), io);
    plat_bio* result = snbf_aio_clone(&tracker, bio, wait, mode);
    if (result == nullptr) sim.drop_bio(bio);
    return result;
  }
  void send(plat_bio* clone) { snbf_plat_bio_submit(clone, disk.bdev); }
  // Clones, sends and waits.
  int run(Op op, u64 sector, u32 bytes) {
    Io io;
    plat_bio* request = clone(op, sector, bytes, 1, PLAT_ALLOC_NOIO, &io);
    if (request == nullptr) return -ENOMEM;
    send(request);
    return io.wait();
  }
  bool refused(u64 sector, u32 bytes) {
    Io io;
    plat_bio* request = clone(Op::Write, sector, bytes, 0, PLAT_ALLOC_NOIO, &io);
    if (request == nullptr) return true;
    send(request);
    EXPECT_EQ(io.wait(), 0);
    return false;
  }

  Sim& sim;
  OpenDevice disk;
  AioTracker tracker;
};

SIM_TEST(Tracker, TheClonesEndIsTheRequestsEnd) {
  TrackerParts parts(sim);
  EXPECT_TRUE(sim.log().contains("snbf_aio_init(): Initializing AIO tracker."));
  EXPECT_EQ(parts.run(Op::Write, 100, 8192), 0);
  EXPECT_EQ(parts.disk.device->counts().write_sectors, 16u);
  EXPECT_EQ(parts.run(Op::Read, 100, 8192), 0);
}

SIM_TEST(Tracker, TheClonesErrorIsTheRequestsError) {
  TrackerParts parts(sim);
  parts.disk.device->fail_range(100, 8, Op::Write, -EIO);
  EXPECT_EQ(parts.run(Op::Write, 100, 4096), -EIO);
  EXPECT_EQ(parts.run(Op::Write, 200, 4096), 0);
}

SIM_TEST(Tracker, ReadsWhatTheDeviceHolds) {
  TrackerParts parts(sim);
  Bytes data(4096, 0x5A);
  parts.disk.device->poke(64, data);
  Io io;
  plat_bio* request = parts.clone(Op::Read, 64, 4096, 1, PLAT_ALLOC_NOIO, &io);
  ASSERT_NE(request, nullptr);
  parts.send(request);
  ASSERT_EQ(io.wait(), 0);
  EXPECT_EQ(io.data(), data);
}

SIM_TEST(TrackerOverlap, IsFoundThroughEveryBlockOfARequest) {
  TrackerParts parts(sim);
  // Sectors 7 and 8: one in block 0, one in block 1.
  Io io;
  plat_bio* first = parts.clone(Op::Write, 7, 1024, 0, PLAT_ALLOC_NOIO, &io);
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(parts.refused(7, 512));
  EXPECT_TRUE(parts.refused(8, 512));
  EXPECT_TRUE(parts.refused(0, 65536));
  // Neighbours in the same blocks are no overlap.
  EXPECT_FALSE(parts.refused(6, 512));
  EXPECT_FALSE(parts.refused(9, 512));
  parts.send(first);
  EXPECT_EQ(io.wait(), 0);
  EXPECT_FALSE(parts.refused(7, 1024));
}

SIM_TEST(TrackerOverlap, OneSectorCoversOneBlock) {
  TrackerParts parts(sim);
  Io io;
  plat_bio* first = parts.clone(Op::Write, 8, 512, 0, PLAT_ALLOC_NOIO, &io);
  u32 entries = 0;
  for (u32 bucket = 0; bucket < kAioBuckets; ++bucket) {
    if (!parts.tracker.buckets[bucket].empty()) {
      ++entries;
      EXPECT_EQ(bucket, 1u);
    }
  }
  EXPECT_EQ(entries, 1u);
  parts.send(first);
  EXPECT_EQ(io.wait(), 0);
}

SIM_TEST(TrackerOverlap, ASharedBucketIsNone) {
  TrackerParts parts(sim);
  Io io;
  plat_bio* first = parts.clone(Op::Write, 0, 4096, 0, PLAT_ALLOC_NOIO, &io);
  EXPECT_FALSE(parts.refused(4096 * 8, 4096));
  parts.send(first);
  EXPECT_EQ(io.wait(), 0);
}

SIM_TEST(TrackerOverlap, ARefusalLeavesNothing) {
  TrackerParts parts(sim);
  Io io;
  plat_bio* first = parts.clone(Op::Write, 0, 4096, 0, PLAT_ALLOC_NOIO, &io);
  const std::size_t live = sim.live_blocks();
  EXPECT_TRUE(parts.refused(0, 4096));
  EXPECT_EQ(sim.live_blocks(), live);
  parts.send(first);
  EXPECT_EQ(io.wait(), 0);
  sim.wait_until([&] { return parts.tracker.items.empty(); });
}

SIM_TEST(TrackerOverlap, AWaiterGoesOnWhenTheOtherHasCompleted) {
  TrackerParts parts(sim);
  parts.disk.device->hold(true);
  Io io;
  plat_bio* first = parts.clone(Op::Write, 0, 4096, 1, PLAT_ALLOC_NOIO, &io);
  parts.send(first);
  bool done = false;
  Task* waiter = sim.spawn("waiter", [&] {
    EXPECT_EQ(parts.run(Op::Write, 4, 4096), 0);
    done = true;
  });
  while (!sim.log().contains("snbf_aio_clone(): waiting...")) sim.sleep_us(100);
  EXPECT_FALSE(done);
  EXPECT_EQ(parts.disk.device->held().size(), 1u);
  parts.disk.device->hold(false);
  parts.disk.device->release_all();
  sim.join(waiter);
  EXPECT_TRUE(done);
  EXPECT_EQ(io.wait(), 0);
}

// A task's own request that waits in its plug goes out when the task waits for it.
SIM_TEST(TrackerOverlap, AWaiterSendsItsOwnPluggedRequestOn) {
  TrackerParts parts(sim);
  Io first;
  Io second;
  {
    Sim::Plug plug(sim);
    parts.send(parts.clone(Op::Write, 0, 4096, 1, PLAT_ALLOC_NOIO, &first));
    parts.send(parts.clone(Op::Write, 0, 4096, 1, PLAT_ALLOC_NOIO, &second));
  }
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(second.wait(), 0);
}

SIM_TEST(TrackerOverlap, ACloneThatIsGivenUpBlocksNobody) {
  TrackerParts parts(sim);
  plat_bio* bio = sim.make_bio(Op::Write, 0, 4096);
  plat_bio* clone = snbf_aio_clone(&parts.tracker, bio, 0, PLAT_ALLOC_NOIO);
  ASSERT_NE(clone, nullptr);
  EXPECT_TRUE(parts.refused(0, 4096));
  snbf_plat_bio_put(clone);
  EXPECT_TRUE(parts.tracker.items.empty());
  EXPECT_FALSE(parts.refused(0, 4096));
  sim.drop_bio(bio);
}

// Against what the device saw: requests that overlap never meet there.
SIM_TEST_SEEDS(TrackerOverlap, OverlappingRequestsNeverMeetAtTheDevice, 40) {
  TrackerParts parts(sim);
  for (int task = 0; task < 5; ++task) {
    sim.spawn("writer", [this, &parts] {
      for (int i = 0; i < 12; ++i) {
        const u64 sector = sim.random(48);
        const u32 bytes = 512 * (1 + static_cast<u32>(sim.random(24)));
        EXPECT_EQ(parts.run(sim.random(4) == 0 ? Op::Read : Op::Write, sector, bytes), 0);
      }
    });
  }
  sim.join_all();
  const auto& seen = parts.disk.device->history();
  EXPECT_EQ(seen.size(), 60u);
  for (std::size_t a = 0; a < seen.size(); ++a) {
    for (std::size_t b = a + 1; b < seen.size(); ++b) {
      const bool overlap = seen[a].sector < seen[b].sector + seen[b].bytes / 512 &&
                           seen[b].sector < seen[a].sector + seen[a].bytes / 512;
      if (!overlap) continue;
      EXPECT_TRUE(seen[a].done_us <= seen[b].sent_us || seen[b].done_us <= seen[a].sent_us);
    }
  }
}

SIM_TEST(TrackerMemory, EveryMissingPieceAnswersNull) {
  TrackerParts parts(sim);
  const std::size_t live = sim.live_blocks();
  sim.fail_nth(Fault::BioClone, 1);
  EXPECT_EQ(parts.clone(Op::Write, 0, 4096, 1), nullptr);
  EXPECT_EQ(sim.log().count("snbf_aio_clone(): Failed to clone BIO.", 3), 1);
  EXPECT_EQ(sim.live_blocks(), live);
  EXPECT_EQ(parts.run(Op::Write, 0, 4096), 0);
}

SIM_TEST(TrackerMemory, AtomicAnswersNullWhenTheReserveIsGone) {
  TrackerParts parts(sim);
  sim.set_memory_pressure(true);
  std::vector<plat_bio*> clones;
  std::vector<Io> ios(4);
  for (u64 i = 0; i < 4; ++i) {  // 1024 blocks each: the whole reserve
    clones.push_back(parts.clone(Op::Discard, i * 8192, 4 << 20, 1, PLAT_ALLOC_ATOMIC, &ios[i]));
    ASSERT_NE(clones.back(), nullptr);
  }
  EXPECT_EQ(parts.clone(Op::Discard, 5 * 8192, 4096, 1, PLAT_ALLOC_ATOMIC), nullptr);
  EXPECT_EQ(sim.log().count("snbf_aio_clone(): Memory allocation failed.", 3), 1);
  // Whoever may sleep waits for what is given back.
  Task* waiter = sim.spawn("waiter", [&] { EXPECT_EQ(parts.run(Op::Discard, 5 * 8192, 4096), 0); });
  sim.sleep_us(10'000);
  EXPECT_EQ(parts.disk.device->counts().discards, 0u);
  parts.send(clones[0]);
  sim.join(waiter);
  for (int i = 1; i < 4; ++i) parts.send(clones[i]);
  for (Io& io : ios) EXPECT_EQ(io.wait(), 0);
  sim.set_memory_pressure(false);
}

SIM_TEST_SEEDS(TrackerMemory, ManyLargeRequestsShareTheReserveWithoutWaitingForEachOther, 6) {
  TrackerParts parts(sim);
  sim.set_memory_pressure(true);
  for (u64 i = 0; i < 9; ++i) {
    sim.spawn("writer", [&parts, i] {
      // Off the block boundary: 1025 blocks each.
      EXPECT_EQ(parts.run(Op::Discard, i * 8200 + 1, 4 << 20), 0);
    });
  }
  sim.join_all();
  sim.set_memory_pressure(false);
}

SIM_TEST(TrackerInit, LeavesNothingBehindWithoutMemory) {
  LoggedParts parts;
  AioTracker tracker;
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    sim.log().clear();
                    const int rc = snbf_aio_init(&tracker);
                    if (rc == 0) {
                      snbf_aio_destroy(&tracker);
                      return;
                    }
                    EXPECT_EQ(rc, -ENOMEM);
                    EXPECT_EQ(sim.log().count("snbf_aio_init(): Memory allocation failed.", 3), 1);
                  });
       ++nth) {
  }
  EXPECT_EQ(nth, 6);  // the table, two caches, two pools
}

SIM_TEST(TrackerInit, AFailureLeavesThePoolsToTheOthers) {
  TrackerParts parts(sim);
  AioTracker second;
  sim.fail_nth(Fault::Virt, 1);
  EXPECT_EQ(snbf_aio_init(&second), -ENOMEM);
  EXPECT_EQ(parts.run(Op::Write, 0, 4096), 0);
}

SIM_TEST(TrackerDestroy, TheLastTakesThePoolsAndAnotherMakesThemAgain) {
  LoggedParts parts;
  AioTracker first;
  AioTracker second;
  ASSERT_EQ(snbf_aio_init(&first), 0);
  ASSERT_EQ(snbf_aio_init(&second), 0);
  snbf_aio_destroy(&first);
  EXPECT_TRUE(sim.log().contains("snbf_aio_destroy(): Destroying AIO tracker."));
  EXPECT_FALSE(sim.log().contains("Destroying global AIO allocators."));
  snbf_aio_destroy(&second);
  EXPECT_TRUE(sim.log().contains("snbf_aio_destroy(): Destroying global AIO allocators."));
  ASSERT_EQ(snbf_aio_init(&first), 0);
  snbf_aio_destroy(&first);
}

SIM_TEST(TrackerClone, NullIsAMistakeOfOurs) {
  TrackerParts parts(sim);
  sim.expect_fatal("bio != nullptr");
  snbf_aio_clone(&parts.tracker, nullptr, 1, PLAT_ALLOC_NOIO);
}

}  // namespace
}  // namespace snbf::sim
