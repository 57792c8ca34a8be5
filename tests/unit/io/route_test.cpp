#include "io/route.h"

#include <numeric>

#include "driver_rig.h"
#include "filter/kdirtyd.h"
#include "platform/entry.h"

namespace snbf::sim {
namespace {

constexpr u32 kFilter = 3;
constexpr u32 kChunks = 4096;  // of 4 KiB, in 16 MiB

// The loaded driver with one started filter node over sda1, extents of 4 KiB, and snaps hung on by
// hand: there is no COW thread, so what is held stays held.
class Routes {
 public:
  explicit Routes(Sim& kernel) : sim(kernel) {
    load_with_partition(sim);
    snbf_filter_node_cmd record = filter_record("/dev/sda1", kFilter, 4096);
    EXPECT_EQ(add_filter(sim, record), 0);
    EXPECT_EQ(start_node(sim, kFilter), 0);
    filter = filter_at(kFilter);
    disk = sim.device("sda1");
    disk->clear_history();
    clear_bitmaps();
    sim.log().clear();
  }
  ~Routes() {
    filter->cowthread.pid.store(0);
    disk->release_all();
    snbf_cowqueue_purge(&filter->cowqueue);
    sim.join_all();
    for (SnapNode* snap : snaps) {
      snap->started.store(0);
      snbf_cowbmp_destroy(&snap->cow_bmp);
      snap->blkbmp = {};
    }
    EXPECT_EQ(stop_node(sim, kFilter), 0);
    EXPECT_EQ(sim.unload_driver(), 0);
  }

  // As far as routing can tell, the COW thread runs.
  void pretend_thread() { filter->cowthread.pid.store(1); }

  // Behind those that are there; nothing copied, and every chunk in use.
  SnapNode* add_snap(u32 minor) {
    SnapNode* snap = hang_snap(filter, minor);
    snap->chunk_size = 4096;
    snap->chunk_shift = 12;
    snap->chunk_cnt = kChunks;
    snap->snap_valid.store(1);
    EXPECT_EQ(snbf_cowbmp_init(&snap->cow_bmp, kChunks), 0);
    snap->started.store(1);
    snaps.push_back(snap);
    return snap;
  }
  // The snap's file system uses no chunk but those that are named.
  void use_only(SnapNode* snap, std::initializer_list<int> chunks) {
    slots.push_back(std::make_unique<Bytes>(kChunks / 8, 0));
    for (int chunk : chunks) (*slots.back())[chunk / 8] |= static_cast<u8>(1 << (chunk % 8));
    frags.push_back(std::make_unique<snbf_blkbmp_frag>(
        snbf_blkbmp_frag{1, 12, kChunks / 8, kChunks - 1, 9, &zero_index, slots.back()->data()}));
    snap->blkbmp = {1, static_cast<int>(kChunks), 1, frags.back().get()};
  }
  void copy(SnapNode* snap, int chunk) {
    snbf_file* file = snbf_fopen("/cow", PLAT_O_RDWR | PLAT_O_CREAT, 0600);
    EXPECT_EQ(snbf_cowbmp_set_bit(&snap->cow_bmp, chunk, PLAT_ALLOC_NOIO, file), 0);
    snbf_fclose(file);
  }
  Io send(Op op, u64 sector, u32 bytes, u32 minor = kFilter) {
    Io io;
    plat_bio* bio = sim.make_bio(op, sector, bytes, dev(100, minor), &io);
    EXPECT_EQ(snbf_make_request(nullptr, bio), 0);
    return io;
  }
  int held() const { return filter->cowqueue.length(); }
  // The tag of the request that was held last, for requests that go to the tail.
  int last_tag() {
    SpinGuard hold{filter->cowqueue.lock};
    return filter->cowqueue.requests.last()->minor;
  }
  // Sent on at once: it ends by itself.
  void expect_passed(Op op, u64 sector, u32 bytes, u32 minor = kFilter) {
    const int before = held();
    Io io = send(op, sector, bytes, minor);
    EXPECT_EQ(held(), before);
    EXPECT_EQ(io.wait(), 0);
  }
  void expect_held(Op op, u64 sector, u32 bytes, int tag, u32 minor = kFilter) {
    const int before = held();
    Io io = send(op, sector, bytes, minor);
    sim.wait_until(
        [&] { return held() != before || io.done(); });  // it may wait for its flag first
    ASSERT_EQ(held(), before + 1);
    EXPECT_FALSE(io.done());
    if (op != Op::Read) {
      EXPECT_EQ(last_tag(), tag);
    }
    // The clone is gone, and stands in nobody's way.
    sim.wait_until([&] { return filter->aio.items.empty(); });
  }
  Bytes incr() {
    SpinGuard hold{filter->bmp_spin};
    const u8* bits = reinterpret_cast<const u8*>(filter->incr_bmp);
    return Bytes(bits, bits + filter->incr_bmp_size);
  }
  void clear_bitmaps() {
    for (u32 type : {0u, 1u}) {
      snbf_bmp_sel sel = {kFilter, type};
      EXPECT_EQ(sim.ioctl(SNBF_CLR_BMP, &sel, sizeof(sel)), 0);
    }
  }

  Sim& sim;
  FilterNode* filter = nullptr;
  Device* disk = nullptr;
  std::vector<SnapNode*> snaps;
  std::vector<std::unique_ptr<Bytes>> slots;
  std::vector<std::unique_ptr<snbf_blkbmp_frag>> frags;
  u16 zero_index = 0;
};

SIM_TEST(Route, RefusesANodeThatIsNotThere) {
  Routes routes(sim);
  Io io = routes.send(Op::Write, 0, 4096, 77);
  EXPECT_EQ(io.wait(), -EINVAL);
  EXPECT_EQ(
      sim.log().count("snbf_make_request(): Nothing is known about SNBF device with minor=77", 3),
      1);
  EXPECT_EQ(routes.send(Op::Read, 0, 4096, 70'000).wait(), -EINVAL);
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
}

SIM_TEST(Route, RefusesANodeThatIsStopped) {
  Routes routes(sim);
  ASSERT_EQ(stop_node(sim, kFilter), 0);
  EXPECT_EQ(routes.send(Op::Write, 0, 4096).wait(), -EIO);
  EXPECT_EQ(sim.log().count("snbf_make_request(): I/O request for snbf(100, 3), which is in "
                            "STOPPED state.",
                            3),
            1);
  EXPECT_EQ(routes.incr(), Bytes(kChunks / 8, 0));
  EXPECT_EQ(routes.disk->counts().writes, 0u);
  ASSERT_EQ(start_node(sim, kFilter), 0);
}

SIM_TEST(Route, LeavesARequestToANodeOfNoKindAlone) {
  Routes routes(sim);
  Io io;
  plat_bio* bio = sim.make_bio(Op::Write, 0, 4096, dev(100, kFilter), &io);
  routes.filter->dev_type = 9;
  EXPECT_EQ(snbf_make_request(nullptr, bio), 0);
  routes.filter->dev_type = kFilterNode;
  EXPECT_FALSE(io.done());
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  sim.drop_bio(bio);
}

SIM_TEST(Route, TellsEveryRequestAtTheHighestLevel) {
  Routes routes(sim);
  routes.expect_passed(Op::Write, 40, 4096);
  EXPECT_TRUE(sim.log().contains("snbf_make_request(): minor=3, sector=40, sectors=8, rw=1"));
  routes.expect_passed(Op::Read, 48, 512);
  EXPECT_TRUE(sim.log().contains("snbf_make_request(): minor=3, sector=48, sectors=1, rw=0"));
}

SIM_TEST(FilterRoute, MarksWritesAndNothingElse) {
  Routes routes(sim);
  routes.expect_passed(Op::Read, 0, 65536);
  routes.expect_passed(Op::Flush, 0, 0);
  EXPECT_EQ(routes.incr(), Bytes(kChunks / 8, 0));
  EXPECT_EQ(routes.disk->counts().flushes, 1u);
  Bytes expected(kChunks / 8, 0);
  routes.expect_passed(Op::Write, 7, 4096);
  expected[0] = 0x03;
  EXPECT_EQ(routes.incr(), expected);
  routes.expect_passed(Op::Discard, 8 * 8, 8 * 4096);
  expected[1] = 0xFF;
  EXPECT_EQ(routes.incr(), expected);
  routes.expect_passed(Op::WriteZeroes, 24 * 8 + 7, 512);
  expected[3] = 0x01;
  EXPECT_EQ(routes.incr(), expected);
  routes.expect_passed(Op::SecureErase, 33 * 8, 4096);
  expected[4] = 0x02;
  EXPECT_EQ(routes.incr(), expected);
}

SIM_TEST(FilterRoute, MarksBeforeItPassesOn) {
  Routes routes(sim);
  routes.disk->hold(true);
  Io io = routes.send(Op::Write, 0, 512);
  EXPECT_EQ(routes.incr()[0], 1);
  routes.disk->hold(false);
  routes.disk->release_all();
  EXPECT_EQ(io.wait(), 0);
}

SIM_TEST(FilterRoute, WithoutSnapsItAllocatesNothingForWhatIsMarked) {
  Routes routes(sim);
  routes.expect_passed(Op::Write, 0, 4096);
  ASSERT_EQ(snbf_yield_to_dirty_requests(*routes.filter, 60), 0);
  const u64 allocations = sim.calls(Fault::AnyAllocation);
  for (int i = 0; i < 3; ++i) {
    Io io;
    plat_bio* bio = sim.make_bio(Op::Write, 0, 4096, dev(100, kFilter), &io);
    snbf_make_request(nullptr, bio);
    EXPECT_EQ(io.wait(), 0);
  }
  EXPECT_EQ(sim.calls(Fault::AnyAllocation), allocations);
  EXPECT_EQ(sim.calls(Fault::BioClone), 0u);
}

SIM_TEST(FilterRoute, CountsEveryRequest) {
  Routes routes(sim);
  const int before = routes.filter->io_req_cnt.load();
  routes.expect_passed(Op::Write, 0, 4096);
  routes.expect_passed(Op::Read, 0, 4096);
  routes.expect_passed(Op::Flush, 0, 0);
  EXPECT_EQ(routes.filter->io_req_cnt.load(), before + 3);
  EXPECT_EQ(routes.filter->io_rwlock.count(), 0);
}

SIM_TEST(FilterRoute, FlagsEachFileOnceUntilItIsSaved) {
  Routes routes(sim);
  const std::string line = "snbf_sched_write_dirty_flag(): Appending dirty request";
  routes.expect_passed(Op::Write, 0, 4096);
  EXPECT_EQ(sim.log().count(line), 2);
  routes.expect_passed(Op::Write, 800, 4096);
  EXPECT_EQ(sim.log().count(line), 2);
  snbf_bmp_sel sel = {kFilter, SNBF_BMP_INCR};
  ASSERT_EQ(sim.ioctl(SNBF_SAVE_BMP, &sel, sizeof(sel)), 0);
  routes.expect_passed(Op::Write, 1600, 4096);
  EXPECT_EQ(sim.log().count(line), 3);
  EXPECT_EQ(sim.log().count(line + " for Incremental"), 2);
}

SIM_TEST(FilterRoute, MarksEvenWhereTheFlagIsLost) {
  Routes routes(sim);
  sim.fail_always(Fault::Heap);
  Io io;
  plat_bio* bio = sim.make_bio(Op::Write, 0, 4096, dev(100, kFilter), &io);
  snbf_make_request(nullptr, bio);
  EXPECT_EQ(io.wait(), 0);
  sim.clear_faults();
  EXPECT_EQ(routes.incr()[0], 1);
  EXPECT_EQ(info_of(sim, kFilter).incr_bmp_empty, 0u);
}

SIM_TEST(FilterRoute, PassesTheDevicesErrorOn) {
  Routes routes(sim);
  routes.disk->fail_range(0, 8, Op::Write, -EIO);
  EXPECT_EQ(routes.send(Op::Write, 0, 4096).wait(), -EIO);
  routes.add_snap(5);
  routes.copy(routes.snaps[0], 0);
  EXPECT_EQ(routes.send(Op::Write, 0, 4096).wait(), -EIO);
}

SIM_TEST(FilterRoute, BesideASnapItSendsClones) {
  Routes routes(sim);
  SnapNode* snap = routes.add_snap(5);
  routes.use_only(snap, {});
  const u64 clones = sim.calls(Fault::BioClone);
  routes.expect_passed(Op::Read, 0, 4096);
  routes.expect_passed(Op::Write, 0, 4096);
  EXPECT_EQ(sim.calls(Fault::BioClone), clones + 2);
  routes.expect_passed(Op::Flush, 0, 0);
  EXPECT_EQ(sim.calls(Fault::BioClone), clones + 2);
}

SIM_TEST(FilterRoute, HoldsAWriteToAChunkThatASnapNeeds) {
  Routes routes(sim);
  SnapNode* snap = routes.add_snap(5);
  routes.use_only(snap, {10});
  routes.expect_passed(Op::Write, 9 * 8, 4096);
  routes.expect_passed(Op::Read, 10 * 8, 4096);
  routes.expect_held(Op::Write, 10 * 8 + 7, 512, 5);
  EXPECT_EQ(routes.incr()[1], 0x06);  // marked all the same
}

SIM_TEST(FilterRoute, OneUsedChunkOfManyHolds) {
  Routes routes(sim);
  routes.use_only(routes.add_snap(5), {13});
  routes.copy(routes.snaps[0], 10);
  routes.copy(routes.snaps[0], 12);
  routes.expect_passed(Op::Write, 10 * 8, 3 * 4096);
  routes.expect_held(Op::Write, 10 * 8, 4 * 4096, 5);
}

SIM_TEST(FilterRoute, HoldsAUsedChunkThatIsCopiedBesideOneThatIsNot) {
  Routes routes(sim);
  routes.use_only(routes.add_snap(5), {10});
  routes.copy(routes.snaps[0], 10);
  routes.expect_passed(Op::Write, 10 * 8, 4096);
  // By the counts: one is in use, and not all are copied.
  routes.expect_held(Op::Write, 10 * 8, 2 * 4096, 5);
}

// The copy counts from where a power cut leaves its bit.
SIM_TEST(FilterRoute, HoldsAWriteToACopiedChunkWhoseBitIsNotSynced) {
  Routes routes(sim);
  SnapNode* snap = routes.add_snap(5);
  for (int chunk : {10, 11, 12}) routes.copy(snap, chunk);
  const auto unsynced = std::make_unique<ChunkSet>();
  unsynced->init();
  unsynced->add(10);
  unsynced->add(11);
  routes.filter->cowthread.unsafe_chunks.store(unsynced.get());
  routes.expect_held(Op::Write, 10 * 8, 4096, 5);
  routes.expect_passed(Op::Write, 12 * 8, 4096);
  routes.filter->cowthread.unsafe_chunks.store(nullptr);
  routes.expect_passed(Op::Write, 11 * 8, 4096);
}

SIM_TEST(FilterRoute, WithoutAMapEveryChunkCounts) {
  Routes routes(sim);
  routes.add_snap(5);
  routes.expect_held(Op::Write, (kChunks - 1) * 8, 4096, 5);
}

SIM_TEST(FilterRoute, WhatIsCopiedPassesWithoutAskingOlderSnaps) {
  Routes routes(sim);
  routes.add_snap(5);
  SnapNode* newest = routes.add_snap(4);
  routes.copy(newest, 20);
  routes.copy(newest, 21);
  routes.expect_passed(Op::Write, 20 * 8, 2 * 4096);
  routes.expect_held(Op::Write, 20 * 8, 3 * 4096, 4);
}

SIM_TEST(FilterRoute, AsksOlderSnapsForWhatTheNewestDoesNotUse) {
  Routes routes(sim);
  SnapNode* oldest = routes.add_snap(5);
  SnapNode* middle = routes.add_snap(6);
  SnapNode* newest = routes.add_snap(7);
  routes.use_only(oldest, {30});
  routes.use_only(middle, {31});
  routes.use_only(newest, {});
  routes.expect_held(Op::Write, 30 * 8, 4096, 7);  // for the newest, whoever asked
  routes.expect_held(Op::Write, 31 * 8, 4096, 7);
  routes.expect_passed(Op::Write, 32 * 8, 4096);
}

SIM_TEST(FilterRoute, ABrokenSnapEndsTheWalk) {
  Routes routes(sim);
  routes.add_snap(5);
  SnapNode* newest = routes.add_snap(6);
  newest->snap_valid.store(0);
  routes.expect_passed(Op::Write, 0, 4096);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(FilterRoute, PassesOverASnapThatIsStopped) {
  Routes routes(sim);
  routes.add_snap(5);
  SnapNode* newest = routes.add_snap(6);
  newest->started.store(0);
  routes.expect_held(Op::Write, 0, 4096, 5);
  routes.snaps[0]->started.store(0);
  routes.expect_passed(Op::Write, 8, 4096);
}

SIM_TEST(FilterRoute, AWriteGoesBehindWhatIsHeld) {
  Routes routes(sim);
  routes.use_only(routes.add_snap(5), {10});
  routes.expect_held(Op::Write, 10 * 8, 2 * 4096, 5);
  routes.expect_held(Op::Write, 11 * 8, 4096, 5);
  routes.expect_passed(Op::Read, 11 * 8, 4096);
  routes.expect_passed(Op::Write, 12 * 8, 4096);
}

SIM_TEST(FilterRoute, WhatCannotBeClonedIsHeld) {
  Routes routes(sim);
  routes.pretend_thread();
  routes.use_only(routes.add_snap(5), {});
  SnapNode* stopped = routes.add_snap(6);
  stopped->started.store(0);
  sim.fail_nth(Fault::BioClone, 1);
  routes.expect_held(Op::Write, 0, 4096, 5);
  sim.fail_nth(Fault::BioClone, 1);
  routes.expect_held(Op::Read, 800, 4096, 5);
  routes.snaps[0]->started.store(0);
  sim.fail_nth(Fault::BioClone, 1);
  routes.expect_held(Op::Write, 1600, 4096, 0);
}

SIM_TEST(FilterRoute, WhatCannotBeClonedFailsWhereNoThreadWouldSendItOn) {
  Routes routes(sim);
  routes.use_only(routes.add_snap(5), {});
  sim.fail_nth(Fault::BioClone, 1);
  EXPECT_EQ(routes.send(Op::Write, 0, 4096).wait(), -ENOMEM);
  EXPECT_EQ(routes.held(), 0);
}

SIM_TEST(FilterRoute, AskingForTheCowThreadNeverWaitsForMemory) {
  Routes routes(sim);
  routes.pretend_thread();
  routes.use_only(routes.add_snap(5), {});
  sim.set_memory_pressure(true);
  for (u64 i = 0; i < 4;
       ++i) {  // the whole reserve of held blocks; sectors beyond the disk serve as well
    for (u64 half = 0; half < 2; ++half) {
      plat_bio* bio = sim.make_bio(Op::Discard, (i * 2 + half) * 8192, 4 << 20, dev(100, kFilter));
      ASSERT_EQ(snbf_cowqueue_append(&routes.filter->cowqueue, 5, bio, PLAT_ALLOC_NOIO), 0);
    }
  }
  bool ended = false;
  Task* kcowd = sim.spawn("kcowd3", [&] {
    sim.fail_nth(Fault::BioClone, 1);
    Io io = routes.send(Op::Write, 1 << 20, 4096);
    EXPECT_EQ(io.wait(), -ENOMEM);
    ended = true;
  });
  sim.join(kcowd);
  EXPECT_TRUE(ended);
  EXPECT_EQ(sim.log().count("snbf_cowqueue_append(): Memory allocation failed", 3), 1);
  sim.set_memory_pressure(false);
}

SIM_TEST(SnapRoute, RefusesASnapThatHangsOnNothing) {
  Routes routes(sim);
  SnapNode* snap = routes.add_snap(5);
  snap->filter_node = nullptr;
  EXPECT_EQ(routes.send(Op::Read, 0, 4096, 5).wait(), -EINVAL);
  EXPECT_EQ(
      sim.log().count("snbf_make_request(): Request for unattached snap device snbf(100, 5)", 3),
      1);
  snap->filter_node = routes.filter;
  routes.filter->dev_type = kSnapNode;
  EXPECT_EQ(routes.send(Op::Read, 0, 4096, 5).wait(), -EINVAL);
  routes.filter->dev_type = kFilterNode;
}

SIM_TEST(SnapRoute, RefusesABrokenOrStoppingSnap) {
  Routes routes(sim);
  SnapNode* snap = routes.add_snap(5);
  const std::string line =
      "snbf_make_request(): I/O request for snbf(100, 5), which is in STOP_PENDING state or "
      "INVALID.";
  snap->snap_valid.store(0);
  EXPECT_EQ(routes.send(Op::Write, 0, 4096, 5).wait(), -EIO);
  EXPECT_EQ(sim.log().count(line, 3), 1);
  snap->snap_valid.store(1);
  snap->stop_pending.store(1);
  EXPECT_EQ(routes.send(Op::Read, 0, 4096, 5).wait(), -EIO);
  EXPECT_EQ(sim.log().count(line, 3), 2);
  snap->stop_pending.store(0);
  snap->started.store(0);
  EXPECT_EQ(routes.send(Op::Read, 0, 4096, 5).wait(), -EIO);
  EXPECT_EQ(sim.log().count("snbf(100, 5), which is in STOPPED state.", 3), 1);
}

SIM_TEST(SnapRoute, RefusesAWrite) {
  Routes routes(sim);
  routes.add_snap(5);
  EXPECT_EQ(routes.send(Op::Write, 0, 4096, 5).wait(), -EROFS);
  EXPECT_EQ(sim.log().count("snbf_make_request(): Write request to snap snbf(100, 5)", 3), 1);
  EXPECT_EQ(routes.disk->counts().writes, 0u);
  EXPECT_EQ(routes.incr(), Bytes(kChunks / 8, 0));
}

SIM_TEST(SnapRoute, ReadsWhatNobodyHasCopiedFromThePartition) {
  Routes routes(sim);
  Bytes data(8192);
  std::iota(data.begin(), data.end(), u8{1});
  routes.disk->poke(80, data);
  routes.add_snap(5);
  routes.add_snap(6);
  Io io = routes.send(Op::Read, 80, 8192, 5);
  EXPECT_EQ(io.wait(), 0);
  EXPECT_EQ(io.data(), data);
  EXPECT_EQ(routes.held(), 0);
}

SIM_TEST(SnapRoute, HoldsAReadOfACopiedChunk) {
  Routes routes(sim);
  SnapNode* oldest = routes.add_snap(5);
  SnapNode* newest = routes.add_snap(6);
  routes.copy(oldest, 10);
  routes.copy(newest, 20);
  routes.expect_held(Op::Read, 9 * 8, 2 * 4096, 6, 5);
  routes.expect_held(Op::Read, 20 * 8, 4096, 6, 5);  // a newer one holds it
  routes.expect_passed(Op::Read, 10 * 8, 4096, 6);   // an older one's copy is no matter
  routes.expect_passed(Op::Read, 11 * 8, 9 * 4096, 5);
  newest->started.store(0);
  routes.expect_passed(Op::Read, 20 * 8, 4096, 5);
  newest->started.store(1);
  newest->snap_valid.store(0);
  routes.expect_passed(Op::Read, 20 * 8, 4096, 5);
}

// It waits for a write that its image did not need held, and by then there is no image any more.
SIM_TEST(SnapRoute, RefusesAReadWhoseSnapIsGivenUpMeanwhile) {
  Routes routes(sim);
  SnapNode* snap = routes.add_snap(7);
  routes.use_only(snap, {});
  routes.disk->hold(true);
  const Io write = routes.send(Op::Write, 8, 4096);
  sim.wait_until([&] { return routes.disk->held().size() == 1; });
  Io read;
  Task* reader = sim.spawn("reader", [&] { read = routes.send(Op::Read, 8, 4096, 7); });
  sim.sleep_us(10'000);
  snap->snap_valid.store(0);
  routes.disk->hold(false);
  routes.disk->release_all();
  sim.join(reader);
  EXPECT_EQ(read.wait(), -EIO);
  EXPECT_EQ(write.wait(), 0);
  EXPECT_EQ(sim.log().count("snbf_make_request(): I/O request for snbf(100, 7), which is in "
                            "STOP_PENDING state or INVALID.",
                            3),
            1);
}

// Its image has the chunk in a copy by the time that it may go: the partition is about to lose it.
SIM_TEST(SnapRoute, HoldsAReadOfAChunkThatIsCopiedWhileItWaits) {
  Routes routes(sim);
  SnapNode* snap = routes.add_snap(7);
  routes.use_only(snap, {2});
  routes.disk->hold(true);
  const Io write = routes.send(Op::Write, 8, 4096);
  sim.wait_until([&] { return routes.disk->held().size() == 1; });
  Io read;
  Task* reader = sim.spawn("reader", [&] { read = routes.send(Op::Read, 8, 2 * 4096, 7); });
  sim.sleep_us(10'000);
  routes.copy(snap, 2);
  routes.disk->hold(false);
  routes.disk->release_all();
  sim.join(reader);
  EXPECT_EQ(routes.held(), 1);
  EXPECT_FALSE(read.done());
  EXPECT_EQ(write.wait(), 0);
}

SIM_TEST(SnapRoute, AReadWaitsBehindAHeldWriteOfItsSectors) {
  Routes routes(sim);
  routes.add_snap(5);
  routes.expect_held(Op::Write, 10 * 8, 4096, 5);
  routes.expect_held(Op::Read, 10 * 8, 4096, 5, 5);
  // A held read is no reason.
  routes.expect_passed(Op::Read, 11 * 8, 4096, 5);
}

SIM_TEST(SnapRoute, WhatCannotBeClonedIsHeld) {
  Routes routes(sim);
  routes.pretend_thread();
  routes.add_snap(5);
  sim.fail_nth(Fault::BioClone, 1);
  routes.expect_held(Op::Read, 0, 4096, 5, 5);
}

SIM_TEST(SnapRoute, PassesAnEmptyReadOn) {
  Routes routes(sim);
  routes.add_snap(5);
  const u64 clones = sim.calls(Fault::BioClone);
  EXPECT_EQ(routes.send(Op::Read, 0, 0, 5).wait(), 0);
  EXPECT_EQ(sim.calls(Fault::BioClone), clones);
}

// Whatever order threads take, the node behaves as its partition, and every changed extent is
// marked.
SIM_TEST_SEEDS(FilterRoute, IsTransparentAndMarksWhatChanged, 30) {
  Routes routes(sim);
  if (sim.random(2) != 0) routes.use_only(routes.add_snap(5), {});
  const Bytes before = routes.disk->all();
  for (int task = 0; task < 3; ++task) {
    sim.spawn("writer", [this, task] {
      for (int i = 0; i < 8; ++i) {
        const u64 sector = sim.random(4096);
        const Bytes data(512 * (1 + sim.random(20)), static_cast<u8>(1 + task * 8 + i));
        EXPECT_EQ(sim.write(kNode(kFilter), sector, data), 0);
        if (i % 3 == 0) {
          EXPECT_EQ(sim.flush(kNode(kFilter)), 0);
        }
      }
    });
  }
  sim.join_all();
  const Bytes after = routes.disk->all();
  const Bytes marked = routes.incr();
  for (u32 extent = 0; extent < kChunks; ++extent) {
    const bool changed = std::memcmp(&before[extent * 4096], &after[extent * 4096], 4096) != 0;
    if (changed) {
      EXPECT_TRUE((marked[extent / 8] >> (extent % 8) & 1) != 0) << extent;
    }
  }
}

}  // namespace
}  // namespace snbf::sim
