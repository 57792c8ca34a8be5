// The start of a snap: on a quiet file system, with its files whole, and with an end to every wait.
#include <algorithm>

#include "snap_bench.h"

namespace snbf::sim {
namespace {

SIM_TEST(StartSnap, OpensItsFilesAtTheirFullLengthAndIsInForce) {
  SnapBench bench(sim, {.bytes = (1 << 20) + 512});
  ASSERT_EQ(bench.write(5, 0x11), 0);
  ASSERT_EQ(bench.add(7, 8192), 0);
  ASSERT_EQ(start_node(sim, 7), 0);
  EXPECT_EQ(sim.log().count("snbf_ioctl_start_node(): Starting snbf(100, 7)"), 1);
  EXPECT_EQ(sim.log().count("snbf_block_start_device(): Starting snbf(100, 7)"), 1);
  EXPECT_EQ(
      sim.log().count("snbf_block_start_device(): snbf(100, 7) has been started successfully"), 1);
  EXPECT_EQ(sim.log().count("snbf_cowthread_start(): Successfully started COW thread kcowd. pid="),
            1);
  EXPECT_FALSE(sim.log().contains("to stabilize"));
  EXPECT_EQ(info_of(sim, 7).started, 1u);
  EXPECT_EQ(info_of(sim, 7).snap_valid, 1u);
  EXPECT_EQ(bench.file(bench.data_file(7)), Bytes(129 * 8192));
  EXPECT_EQ(bench.file(bench.bmp_file(7)), Bytes(17));
  EXPECT_EQ(bench.read(7, 5), 0x11);
  ASSERT_EQ(bench.write(5, 0x99), 0);
  EXPECT_EQ(bench.read(7, 5), 0x11);
  EXPECT_EQ(bench.read(kOrigin, 5), 0x99);
}

SIM_TEST(StartSnap, AStartedOneIsRefusedAndStaysAsItIs) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x99), 0);
  EXPECT_EQ(start_node(sim, 7), -EALREADY);
  EXPECT_EQ(bench.errors("snbf_block_start_device(): snbf(100, 7) has already been started"), 1);
  EXPECT_EQ(bench.read(7, 1), 0x11);
}

SIM_TEST(StartSnap, BeginsAnewEachTime) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x22), 0);
  ASSERT_EQ(stop_node(sim, 7), 0);
  ASSERT_EQ(start_node(sim, 7), 0);
  EXPECT_EQ(bench.file(bench.bmp_file(7)), Bytes(32));
  EXPECT_EQ(bench.read(7, 1), 0x22);
  ASSERT_EQ(bench.write(1, 0x33), 0);
  EXPECT_EQ(bench.read(7, 1), 0x22);
}

SIM_TEST(StartSnap, StartsAStoppedFilterThatStaysStartedWhenTheSnapFails) {
  SnapBench bench(sim, {.started = false});
  ASSERT_EQ(bench.add(7), 0);
  sim.fail_nth(Fault::FileOpen, 1);
  EXPECT_EQ(start_node(sim, 7), -EIO);
  EXPECT_EQ(info_of(sim, kOrigin).started, 1u);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  EXPECT_EQ(start_node(sim, 7), 0);
}

// What an earlier image left in the files would come back with a power cut.
SIM_TEST(StartSnap, FilesWhoseEmptinessIsNotOnDiskAreNoneToStartWith) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.add(7), 0);
  for (const std::string& file : {bench.data_file(7), bench.bmp_file(7)}) {
    sim.fail_nth(Fault::FileSync, file == bench.data_file(7) ? 1 : 2);
    EXPECT_EQ(start_node(sim, 7), -EIO);
    EXPECT_EQ(bench.errors("snbf_block_start_device(): Failed to sync " + file), 1);
    EXPECT_EQ(info_of(sim, 7).started, 0u);
  }
  EXPECT_EQ(start_node(sim, 7), 0);
}

// Nobody would end it, and the filter could be deleted under its hands.
SIM_TEST_SEEDS(StartSnap, ThatFailsWhileTheFilterIsStoppedLeavesItNoThread, 60) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.add(7), 0);
  sim.fail_always(Fault::FileOpen, -EIO);
  Task* stopper = sim.spawn("stopper", [&] { EXPECT_EQ(stop_node(sim, kOrigin), 0); });
  EXPECT_EQ(start_node(sim, 7), -EIO);
  sim.join(stopper);
  const bool is_started = info_of(sim, kOrigin).started != 0;
  EXPECT_TRUE(is_started || bench.filter()->cowthread.pid.load() == 0);
  sim.clear_faults();
}

// A stop that was postponed makes it DEFUNCT.
SIM_TEST(StartSnap, ADefunctOneIsRefused) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.add(7), 0);
  bench.snap(7)->stop_pending.store(1);
  EXPECT_EQ(start_node(sim, 7), -EINVAL);
  EXPECT_EQ(bench.errors("snbf_block_start_device(): Cannot restart a DEFUNCT snap device."), 1);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  EXPECT_FALSE(sim.exists(bench.data_file(7)));
  EXPECT_EQ(delete_node(sim, 7), 0);
}

SIM_TEST_SEEDS(StartSnap, LeavesItStoppedWhicheverStepFails, 2) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  ASSERT_EQ(bench.add(7), 0);
  // The map of used chunks is read behind the start and may fail alone; so may kcowd.
  for (const Fault fault : {Fault::Heap, Fault::Virt, Fault::FileOpen}) {
    for (int nth = 1; fails_at(sim, fault, nth,
                               [&] {
                                 const int rc = start_node(sim, 7);
                                 sim.clear_faults();
                                 if (rc == 0) {
                                   EXPECT_EQ(bench.read(7, 1), 0x11);
                                   EXPECT_EQ(stop_node(sim, 7), 0);
                                   return;
                                 }
                                 EXPECT_EQ(info_of(sim, 7).started, 0u);
                                 EXPECT_EQ(bench.snap(7)->cow_data_file, nullptr);
                                 EXPECT_EQ(bench.snap(7)->cow_bmp_file, nullptr);
                                 EXPECT_EQ(bench.snap(7)->cow_bmp.pages, nullptr);
                                 EXPECT_EQ(bench.filter()->io_rwlock.count(), 0);
                                 bench.expect_table(0);
                               });
         ++nth) {
    }
  }
  EXPECT_EQ(start_node(sim, 7), 0);
}

// kcowd's own start is not checked: without it no write may wait for ever.
SIM_TEST(StartSnap, WithoutKcowdNoWriteHangs) {
  SnapBench bench(sim);
  for (const Fault fault : {Fault::ThreadStart, Fault::Page, Fault::BioAlloc}) {
    SCOPED_TRACE(static_cast<int>(fault));
    ASSERT_EQ(bench.add(7), 0);
    sim.fail_nth(fault, 1);
    const int rc = start_node(sim, 7);
    sim.clear_faults();
    const u64 before = sim.now_us();
    EXPECT_EQ(bench.write(1, 0x11), 0);
    EXPECT_LE(sim.now_us() - before, 11'000'000u);
    if (rc == 0 && info_of(sim, 7).snap_valid != 0) {
      EXPECT_EQ(bench.read(7, 1), 0);
    }
    ASSERT_EQ(delete_node(sim, 7), 0);
    ASSERT_EQ(stop_node(sim, kOrigin), 0);  // the next start makes another kcowd
    ASSERT_EQ(start_node(sim, kOrigin), 0);
  }
}

// ---- The file system on the node

struct Mounted {
  explicit Mounted(SnapBench& snaps) : bench(snaps), sim(snaps.sim) {
    fs = sim.add_fs("data", kNode(kOrigin));
    EXPECT_EQ(sim.mount(fs, "/data"), 0);
    EXPECT_EQ(sim.write_file("/data/file", Bytes(4096, 1), true), 0);
    block = fs->map("/data/file").at(0).first / 8;
  }
  ~Mounted() { EXPECT_EQ(sim.unmount(fs), 0); }
  SnapBench& bench;
  Sim& sim;
  FileSystem* fs;
  u64 block;
};

SIM_TEST(StartSnap, WhatWasWrittenToAFileBeforeIsInTheImage) {
  SnapBench bench(sim);
  Mounted mounted(bench);
  ASSERT_EQ(bench.add(7), 0);
  ASSERT_EQ(sim.write_at("/data/file", 0, Bytes(4096, 2)), 0);  // not synced: the freeze does it
  ASSERT_EQ(start_node(sim, 7), 0);
  EXPECT_FALSE(mounted.fs->frozen());
  ASSERT_EQ(sim.write_at("/data/file", 0, Bytes(4096, 3), true), 0);
  EXPECT_EQ(bench.read(7, mounted.block), 2);
  EXPECT_EQ(bench.read(kOrigin, mounted.block), 3);
  ASSERT_EQ(stop_node(sim, 7), 0);
}

SIM_TEST(StartSnap, AFreezeThatFailsDoesNotStopIt) {
  SnapBench bench(sim);
  Mounted mounted(bench);
  ASSERT_EQ(bench.add(7), 0);
  sim.fail_nth(Fault::BdevFreeze, 1);
  EXPECT_EQ(start_node(sim, 7), 0);
  EXPECT_FALSE(mounted.fs->frozen());
  ASSERT_EQ(stop_node(sim, 7), 0);
  ASSERT_EQ(mounted.fs->freeze_by_hand(), 0);
  EXPECT_EQ(start_node(sim, 7), 0);
  EXPECT_TRUE(mounted.fs->frozen()) << "who froze it thaws it";
  EXPECT_EQ(mounted.fs->thaw_by_hand(), 0);
  ASSERT_EQ(stop_node(sim, 7), 0);
}

// A load that never pauses ends the start after 60 seconds; the writes go on all the time.
SIM_TEST_SEEDS(StartSnap, GivesUpWhenTheLoadNeverPauses, 2) {
  SnapBench bench(sim, {.debug = 4});
  sim.set_step_limit(400'000'000);
  OpenNode opening;
  ASSERT_EQ(sim.open_node(kNode(kOrigin), PLAT_MODE_READ | PLAT_MODE_WRITE, &opening), 0);
  ASSERT_EQ(bench.add(7), 0);
  // Requests that take longer than the time limit: something is always in flight.
  bench.disk->hold(true);
  bool over = false;
  Task* task = sim.spawn("writer", [&] { EXPECT_EQ(bench.write(1, 0x11), 0); });
  sim.sleep_us(1000);
  const u64 before = sim.now_us();
  EXPECT_EQ(start_node(sim, 7), -EAGAIN);
  over = true;
  EXPECT_GE(sim.now_us() - before, 59'000'000u);
  EXPECT_LE(sim.now_us() - before, 64'000'000u);
  EXPECT_EQ(bench.errors("snbf_block_start_device(): Timed out waiting for FS on snbf(100, 3) "
                         "(/dev/sda1) to stabilize."),
            1);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  EXPECT_EQ(bench.filter()->io_rwlock.count(), 0);
  EXPECT_TRUE(over);
  bench.disk->hold(false);
  bench.disk->release_all();
  sim.join(task);
  EXPECT_EQ(start_node(sim, 7), 0);
  ASSERT_EQ(sim.close_node(&opening), 0);
}

// Writes that keep coming, one every 20 ms, however long each of them takes.
class SteadyLoad {
 public:
  explicit SteadyLoad(SnapBench& snaps) : bench(snaps) {
    source = bench.sim.spawn("load", [this] {
      for (u64 n = 0; !over; ++n) {
        bench.sim.spawn("writer", [this, n] { EXPECT_EQ(bench.write(n % 64, 0x11), 0); });
        bench.sim.sleep_us(20'000);
      }
    });
    bench.sim.sleep_us(1'000'000);
  }
  void end() {
    over = true;
    bench.sim.join(source);
    bench.sim.join_all();
  }

 private:
  SnapBench& bench;
  Task* source;
  bool over = false;
};

// Its disk needs longer for what is queued than the first attempts wait for.
SIM_TEST_SEEDS(StartSnap, SucceedsOnASlowDiskWithWritersAtWork, 2) {
  SnapBench bench(sim, {.debug = 1});
  sim.set_step_limit(400'000'000);
  ASSERT_EQ(bench.add(7), 0);
  bench.disk->set_latency(300'000, 300'000);
  SteadyLoad load(bench);
  EXPECT_EQ(start_node(sim, 7), 0);
  load.end();
  EXPECT_EQ(info_of(sim, 7).snap_valid, 1u);
}

// The same for what went on as clones, since the node had a snap when it came.
SIM_TEST_SEEDS(StartSnap, SucceedsBesideAnOtherOnASlowDiskWithWritersAtWork, 2) {
  SnapBench bench(sim, {.debug = 1});
  sim.set_step_limit(400'000'000);
  bench.add_started(7);
  ASSERT_EQ(bench.add(8), 0);
  bench.disk->set_latency(300'000, 300'000);
  SteadyLoad load(bench);
  EXPECT_EQ(start_node(sim, 8), 0);
  load.end();
  EXPECT_EQ(info_of(sim, 8).snap_valid, 1u);
}

// Looks every 100 ms whether what is sent to `to` still gets to the disk, which answers nothing.
struct Newcomers {
  Newcomers(Sim& kernel, Device* on, plat_devt to) : sim(kernel), disk(on) {
    sim.spawn("newcomers", [this, to] {
      for (std::size_t sent = disk->held().size(); !over;) {
        // Not two of the same place: those wait for each other.
        sim.spawn("newcomer", [this, to, sent] {
          Bytes data;
          EXPECT_EQ(sim.read(to, 16 + sent, 512, &data), 0);
        });
        ++sent;
        sim.sleep_us(100'000);
        kept_out = disk->held().size() < sent ? kept_out + 1 : 0;
        longest = std::max(longest, kept_out);
        ++(kept_out > 0 ? looks_out : looks_in);
      }
    });
  }
  void end() {
    over = true;
    disk->hold(false);
    disk->release_all();
    sim.join_all();
  }
  // Of the start of snap `minor`, while one write never ends.
  void expect_end_in_time(u32 minor) {
    const u64 before = sim.now_us();
    EXPECT_EQ(start_node(sim, minor), -EAGAIN);
    EXPECT_GE(sim.now_us() - before, 59'900'000u);
    EXPECT_LE(sim.now_us() - before, 60'500'000u);
    EXPECT_GE(looks_out, 200u);
    EXPECT_GE(looks_in * 11, looks_out * 10);
    EXPECT_LE(longest, 42u);
  }
  Sim& sim;
  Device* disk;
  bool over = false;
  u32 looks_in = 0, looks_out = 0, kept_out = 0, longest = 0;
};

// The other partitions of such a disk are kept waiting, but half of the time at most, and not for long at a time.
SIM_TEST_SEEDS(StartSnap, EndsInTimeOnADiskThatNeverAnswers, 2) {
  SnapBench bench(sim, {.debug = 1});
  sim.set_step_limit(400'000'000);
  bench.disk->hold(true);
  sim.spawn("writer", [&] { EXPECT_EQ(bench.write(1, 0x11), 0); });
  sim.wait_until([&] { return bench.disk->held().size() == 1; });
  ASSERT_EQ(bench.add(7), 0);
  Newcomers newcomers(sim, bench.disk, bench.disk->number());
  newcomers.expect_end_in_time(7);
  newcomers.end();
  EXPECT_EQ(start_node(sim, 7), 0);
}

// And so is the node alone, where the write went as a clone.
SIM_TEST_SEEDS(StartSnap, EndsInTimeBesideAnOtherOnADiskThatNeverAnswers, 2) {
  SnapBench bench(sim, {.debug = 1});
  sim.set_step_limit(400'000'000);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  ASSERT_EQ(bench.add(8), 0);
  bench.disk->hold(true);
  sim.spawn("writer", [&] { EXPECT_EQ(bench.write(1, 0x22), 0); });
  sim.wait_until([&] { return bench.disk->held().size() == 1; });
  Newcomers newcomers(sim, bench.disk, kNode(kOrigin));
  newcomers.expect_end_in_time(8);
  newcomers.end();
  EXPECT_EQ(start_node(sim, 8), 0);
}

// Passed on in place while the node had no snap, and held up in front of a partition whose queue is full:
// they are in no queue and in no tracker.
struct FullQueue {
  explicit FullQueue(Sim& kernel) : sim(kernel) {
    disk = sim.add_device({.name = "sdc1", .bytes = 1 << 20, .queue_depth = 1});
    EXPECT_EQ(sim.mount(sim.add_fs("store", sim.add_device({.name = "sdd1"})->number()), "/cow"),
              0);
    snbf_filter_node_cmd record = filter_record("/dev/sdc1", 4);
    EXPECT_EQ(add_filter(sim, record), 0);
    EXPECT_EQ(start_node(sim, 4), 0);
    EXPECT_EQ(sim.write(kNode(4), 0, Bytes(4096, 0x10)), 0);
    disk->hold(true);
    for (u8 fill : {0x11, 0x12}) {
      sim.spawn("writer",
                [this, fill] { EXPECT_EQ(sim.write(kNode(4), 0, Bytes(4096, fill)), 0); });
      sim.sleep_us(1000);
    }
    EXPECT_EQ(filter_at(4)->entering.load(), 1);
  }
  void let_go() {
    disk->hold(false);
    disk->release_all();
  }
  Sim& sim;
  Device* disk;
};

SIM_TEST(StartSnap, WaitsForWritesThatHaveNotEnteredThePartitionYet) {
  SnapBench bench(sim);
  FullQueue full(sim);
  snbf_snap_node_cmd snap = bench.record("/cow/snap", 9);
  snap.snbf_minor = 4;
  ASSERT_EQ(bench.add(snap), 0);
  Task* starter = sim.spawn("starter", [&] { EXPECT_EQ(start_node(sim, 9), 0); });
  sim.sleep_us(5'000'000);
  EXPECT_EQ(info_of(sim, 9).started, 0u);
  full.let_go();
  sim.join(starter);
  sim.join_all();
  const int at_start = bench.read(9, 0);
  EXPECT_TRUE(at_start == 0x11 || at_start == 0x12) << at_start;
  EXPECT_EQ(sim.write(kNode(4), 0, Bytes(4096, 0x77)), 0);
  EXPECT_EQ(bench.read(9, 0), at_start);
  ASSERT_EQ(delete_node(sim, 4), 0);
}

// While somebody else empties the queue of its disk nothing enters it.
SIM_TEST(StartSnap, WaitsForAWriteThatIsKeptOutOfItsDisksQueue) {
  SnapBench bench(sim);
  plat_bdev* const disk = bench.filter()->hdd_bdev;
  bench.disk->hold(true);
  Task* first = sim.spawn("first", [&] { EXPECT_EQ(bench.write(0, 0x11), 0); });
  sim.wait_until([&] { return bench.disk->held().size() == 1; });
  Task* other = sim.spawn("other", [&] { EXPECT_EQ(snbf_plat_bdev_drain(disk, 10'000), 0); });
  sim.sleep_us(1000);
  Task* second = sim.spawn("second", [&] { EXPECT_EQ(bench.write(0, 0x22), 0); });
  sim.wait_until([&] { return bench.filter()->entering.load() == 1; });
  ASSERT_EQ(bench.add(7), 0);
  Task* starter = sim.spawn("starter", [&] { EXPECT_EQ(start_node(sim, 7), 0); });
  // Into the start's second attempt to empty it, which is from 400 ms to 800.
  sim.sleep_us(600'000);
  bench.disk->release();
  sim.join(other);
  sim.sleep_us(3'000'000);
  EXPECT_EQ(bench.snap(7)->started.load(), 0);
  bench.disk->hold(false);
  bench.disk->release_all();
  sim.join(starter);
  EXPECT_EQ(bench.read(7, 0), 0x22);
  sim.join(first);
  sim.join(second);
}

SIM_TEST(StartSnap, GivesUpWhenAWriteNeverEntersThePartition) {
  SnapBench bench(sim);
  sim.set_step_limit(400'000'000);
  FullQueue full(sim);
  snbf_snap_node_cmd snap = bench.record("/cow/snap", 9);
  snap.snbf_minor = 4;
  ASSERT_EQ(bench.add(snap), 0);
  EXPECT_EQ(start_node(sim, 9), -EAGAIN);
  EXPECT_EQ(bench.errors("snbf_block_start_device(): Timed out waiting for FS on snbf(100, 4)"), 1);
  EXPECT_EQ(filter_at(4)->io_rwlock.count(), 0);
  full.let_go();
  sim.join_all();
  EXPECT_EQ(start_node(sim, 9), 0);
  ASSERT_EQ(delete_node(sim, 4), 0);
}

// A request that is being routed for long, for lack of memory perhaps.
SIM_TEST(StartSnap, LetsOpenersAndRequestsInWhileOneIsRouted) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.add(7), 0);
  bench.filter()->io_rwlock.read_lock();
  Task* starter = sim.spawn("starter", [&] { EXPECT_EQ(start_node(sim, 7), 0); });
  sim.sleep_us(1000);
  OpenNode opening;
  EXPECT_EQ(sim.open_node(kNode(kOrigin), PLAT_MODE_READ, &opening), 0);
  sim.wait_until([&] { return bench.filter()->io_rwlock.has_waiting_writer(); });
  EXPECT_EQ(bench.write(1, 0x11), 0);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  sim.sleep_us(3'000'000);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  bench.filter()->io_rwlock.read_unlock();
  sim.join(starter);
  EXPECT_EQ(info_of(sim, 7).started, 1u);
  ASSERT_EQ(sim.close_node(&opening), 0);
}

// A newer snap holds copies from before this start: it would hand them to the older one's image.
SIM_TEST(StartSnap, AnOlderSnapNeverShowsWhatANewerOneCopiedBeforeItsStart) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  ASSERT_EQ(bench.add(7), 0);
  ASSERT_EQ(bench.add(8), 0);
  ASSERT_EQ(start_node(sim, 8), 0);
  ASSERT_EQ(bench.write(1, 0x22), 0);
  if (start_node(sim, 7) == 0) {
    EXPECT_EQ(bench.read(7, 1), 0x22);
    ASSERT_EQ(bench.write(1, 0x33), 0);
    ASSERT_EQ(bench.write(2, 0x33), 0);
    EXPECT_EQ(bench.read(7, 1), 0x22);
    EXPECT_EQ(bench.read(7, 2), 0);
  } else {
    EXPECT_EQ(info_of(sim, 7).started, 0u);
  }
  EXPECT_EQ(bench.read(8, 1), 0x11);
}

// A write that was passed on in place and is still with the partition keeps the image from beginning.
void expect_start_waits_for_write(SnapBench& bench) {
  Sim& sim = bench.sim;
  bench.disk->hold(true);
  Task* writer = sim.spawn("writer", [&] { EXPECT_EQ(bench.write(1, 0x22), 0); });
  sim.sleep_us(5000);
  ASSERT_EQ(bench.add(8), 0);
  Task* starter = sim.spawn("starter", [&] { EXPECT_EQ(start_node(sim, 8), 0); });
  sim.sleep_us(2'000'000);
  EXPECT_EQ(bench.snap(8)->started.load(), 0);
  bench.disk->hold(false);
  bench.disk->release_all();
  sim.join(writer);
  sim.join(starter);
  EXPECT_EQ(bench.read(8, 1), 0x22);
}

SIM_TEST(StartSnap, WaitsForAWriteThatWasPassedOnInPlace) {
  SnapBench bench(sim);
  expect_start_waits_for_write(bench);
}

SIM_TEST(StartSnap, WaitsForOneAgainOnceTheLastSnapWasDeleted) {
  SnapBench bench(sim);
  bench.add_started(7);
  ASSERT_EQ(delete_node(sim, 7), 0);
  expect_start_waits_for_write(bench);
}

// Held for the older snap, cloned and in flight, or passed on in place while there was no snap:
// each would land behind the start without a copy.
SIM_TEST_SEEDS(StartSnap, WritesOnTheirWayLandBeforeOrAreCopied, 60) {
  SnapBench bench(sim, {.debug = 0});
  const bool older = sim.random(2) == 0;
  if (older) bench.add_started(7);
  ASSERT_EQ(bench.add(8), 0);
  bench.disk->set_latency(20, 4000);
  for (int i = 0; i < 4; ++i) {
    sim.spawn("writer", [&, i] {
      for (int n = 0; n < 6; ++n)
        EXPECT_EQ(bench.write(static_cast<u64>(i), static_cast<u8>(1 + n)), 0);
    });
  }
  sim.sleep_us(sim.random(8000));
  ASSERT_EQ(start_node(sim, 8), 0);
  Bytes first(4);
  for (int i = 0; i < 4; ++i) first[i] = static_cast<u8>(bench.read(8, static_cast<u64>(i)));
  sim.join_all();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(bench.read(8, static_cast<u64>(i)), first[i]);
}

}  // namespace
}  // namespace snbf::sim
