#include "filter/parking.h"

#include "driver_rig.h"
#include "filter/bmp.h"

namespace snbf::sim {
namespace {

constexpr u32 kFilter = 3;
constexpr const char* kGaveUp =
    "kparkd(): The dirty flag of snbf(100, 3) could not be raised within 10 seconds. "
    "Its writes go on without it.";
const Bytes kFlagged = {'S', 'N', 'B', 'F', 'B', 'M', 'P', 1};

// A started node over sda1 with extents of 4 KiB; its files lie on a file system of a device of its
// own, /store.
class Node3 {
 public:
  explicit Node3(Sim& kernel, u32 queue_depth = 0) : sim(kernel) {
    load_with_partition(sim, {.debug = 4}, queue_depth);
    store = sim.add_device({.name = "sdb1", .bytes = 4 << 20});
    EXPECT_EQ(sim.mount(sim.add_fs("store", store->number()), "/store"), 0);
    snbf_filter_node_cmd record = filter_record("/dev/sda1", kFilter, 4096, "/store");
    EXPECT_EQ(add_filter(sim, record), 0);
    EXPECT_EQ(start_node(sim, kFilter), 0);
    node = filter_at(kFilter);
    disk = sim.device("sda1");
    for (u32 type : {0u, 1u}) EXPECT_EQ(select(SNBF_CLR_BMP, type), 0);
    sim.log().clear();
    disk->clear_history();
  }
  ~Node3() {
    store->release_all();
    sim.join_all();
    EXPECT_EQ(sim.unload_driver(), 0);
  }

  int select(u32 command, u32 type) {
    snbf_bmp_sel record = {kFilter, type};
    return sim.ioctl(command, &record, sizeof(record));
  }
  Io write(u64 extent, u32 bytes = 4096) {
    return sim.submit(kNode(kFilter),
                      {.op = Op::Write, .sector = extent * 8, .data = Bytes(bytes, 0x5A)});
  }
  Bytes file(const char* suffix) {
    Bytes data;
    sim.peek_file(std::string("/store/snbf3.") + suffix, &data);
    return data;
  }
  bool is_set(u64 extent) {
    SpinGuard hold{node->bmp_spin};
    return (reinterpret_cast<const u8*>(node->incr_bmp)[extent / 8] >> extent % 8 & 1) != 0;
  }
  bool is_waiting() {
    SpinGuard hold{node->bmp_spin};
    return !node->incr_guard.covers();
  }
  u64 reached() const { return disk->counts().writes; }

  Sim& sim;
  FilterNode* node;
  Device* disk;
  Device* store;
};

SIM_TEST_SEEDS(Parking, TheFirstWriteAfterASaveReachesThePartitionBehindItsFlags, 20) {
  Node3 rig(sim);
  const Io io = rig.write(7);
  EXPECT_EQ(io.wait(), 0);
  EXPECT_EQ(rig.file("incr"), kFlagged);
  EXPECT_EQ(rig.file("diff"), kFlagged);
  u64 flags_us = 0;
  for (const Device::Seen& seen : rig.store->history()) {
    if (seen.op != Op::Read && seen.done_us <= io.done_at_us())
      flags_us = std::max(flags_us, seen.done_us);
  }
  EXPECT_GE(rig.disk->history().back().sent_us, flags_us);
}

SIM_TEST(Parking, TheSubmitterGoesOn) {
  Node3 rig(sim);
  rig.store->hold(true);
  const u64 before_us = sim.now_us();
  std::vector<Io> writes;
  for (u64 extent = 0; extent < 20; ++extent) writes.push_back(rig.write(extent));
  EXPECT_LT(sim.now_us() - before_us, 100'000u);
  EXPECT_EQ(rig.node->parking.writes.load(), 20);
  sim.sleep_us(3'000'000);
  EXPECT_EQ(rig.reached(), 0u);
  // What does not change anything goes past them.
  Bytes data;
  EXPECT_EQ(sim.read(kNode(kFilter), 800, 4096, &data), 0);
  EXPECT_EQ(sim.flush(kNode(kFilter)), 0);
  rig.store->hold(false);
  rig.store->release_all();
  for (const Io& io : writes) EXPECT_EQ(io.wait(), 0);
  EXPECT_FALSE(sim.log().has_errors());
  EXPECT_EQ(rig.reached(), 20u);
}

// Its bit is set, but by a write that waits itself.
SIM_TEST(Parking, AWriteOfAnExtentThatIsMarkedWaitsToo) {
  Node3 rig(sim);
  rig.store->hold(true);
  const Io first = rig.write(5);
  const Io second = rig.write(5);
  sim.sleep_us(1'000'000);
  EXPECT_EQ(rig.reached(), 0u);
  rig.store->hold(false);
  rig.store->release_all();
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(second.wait(), 0);
}

SIM_TEST(Parking, BehindTheFlagAndForBitsThatTheFileHasNothingWaits) {
  Node3 rig(sim);
  EXPECT_EQ(rig.write(5).wait(), 0);
  rig.store->hold(true);
  EXPECT_EQ(rig.write(6).wait(), 0);  // the flags are up
  rig.store->hold(false);
  rig.store->release_all();
  for (u32 type : {0u, 1u}) ASSERT_EQ(rig.select(SNBF_SAVE_BMP, type), 0);
  rig.store->hold(true);
  EXPECT_EQ(rig.write(5).wait(), 0);  // it is in both files
  EXPECT_EQ(rig.write(6).wait(), 0);
  EXPECT_EQ(rig.node->parking.writes.load(), 0);
  rig.store->hold(false);
}

SIM_TEST(Parking, AfterTenSecondsTheWritesGoOnAndALineSaysSo) {
  Node3 rig(sim);
  rig.store->hold(true);
  const u64 before_us = sim.now_us();
  const Io early = rig.write(1);
  sim.sleep_us(4'000'000);
  const Io late = rig.write(2);
  EXPECT_EQ(early.wait(), 0);
  EXPECT_EQ(late.wait(), 0);
  EXPECT_GE(early.done_at_us() - before_us, 9'990'000u);
  EXPECT_LT(late.done_at_us() - before_us, 11'000'000u);
  EXPECT_EQ(sim.log().count(kGaveUp, 3), 1);
  // From now on nobody waits, until the store is back.
  const u64 given_up_us = sim.now_us();
  EXPECT_EQ(rig.write(3).wait(), 0);
  EXPECT_LT(sim.now_us() - given_up_us, 1'000'000u);
  rig.store->hold(false);
  rig.store->release_all();
  sim.wait_until([&] { return rig.file("diff") == kFlagged; });
  for (u32 type : {0u, 1u}) ASSERT_EQ(rig.select(SNBF_SAVE_BMP, type), 0);
  rig.store->hold(true);
  const Io again = rig.write(9);
  sim.sleep_us(1'000'000);
  EXPECT_FALSE(again.done());
  rig.store->hold(false);
  rig.store->release_all();
  EXPECT_EQ(again.wait(), 0);
  EXPECT_EQ(sim.log().count(kGaveUp), 1);
}

SIM_TEST(Parking, AFlagThatFailsIsTriedAgain) {
  Node3 rig(sim);
  sim.fail_nth(Fault::FileWrite, 1, -EIO);
  EXPECT_EQ(rig.write(7).wait(), 0);
  EXPECT_FALSE(sim.log().contains(kGaveUp));
  EXPECT_EQ(rig.file("incr"), kFlagged);
  EXPECT_EQ(rig.file("diff"), kFlagged);
}

SIM_TEST(Parking, ARequestThatFoundNoMemoryIsTriedAgain) {
  Node3 rig(sim);
  sim.fail_nth(Fault::Heap, 1);
  EXPECT_EQ(rig.write(7).wait(), 0);
  EXPECT_EQ(sim.log().count("snbf_sched_write_dirty_flag(): Memory allocation failure", 3), 1);
  EXPECT_FALSE(sim.log().contains(kGaveUp));
  EXPECT_EQ(rig.file("incr"), kFlagged);
}

// A file system may call this so, too, in what it writes for the flag.
SIM_TEST(Parking, AFlagThatIsRefusedAsInvalidIsNotGivenUp) {
  Node3 rig(sim);
  sim.fail_nth(Fault::FileWrite, 1, -EINVAL);
  EXPECT_EQ(rig.write(7).wait(), 0);
  EXPECT_EQ(rig.file("incr"), kFlagged);
  EXPECT_EQ(rig.file("diff"), kFlagged);
}

// The memory may be what the write is to give back.
SIM_TEST(Parking, WhereNoMemoryIsToBeHadTheWriteGoesOnAtTheLimit) {
  Node3 rig(sim);
  sim.hold_heap(true);
  Task* flusher = sim.spawn("flusher", [&] { EXPECT_EQ(rig.write(7).wait(), 0); });
  sim.sleep_us(11'000'000);
  EXPECT_EQ(rig.reached(), 1u);
  EXPECT_EQ(sim.log().count(kGaveUp), 1);
  sim.hold_heap(false);
  sim.join(flusher);
}

// The worker alone is left to send it on.
SIM_TEST(Parking, AParkedWriteWhoseBitWasTakenNeedsNoMemoryEither) {
  Node3 rig(sim);
  rig.store->hold(true);
  const Io io = rig.write(7);
  for (u32 type : {0u, 1u}) {
    SpinGuard hold{rig.node->bmp_spin};
    const ChangeBitmap bitmap{*rig.node, type};
    bitmap.fill(0);
    bitmap.set_dirty(0);
  }
  sim.hold_heap(true);
  EXPECT_EQ(io.wait(), 0);
  EXPECT_TRUE(rig.is_set(7));
  sim.hold_heap(false);
  rig.store->hold(false);
  rig.store->release_all();
}

// The writes are long on their way, for their disk is slow; only then a bit comes that a file lacks, for as long as the
// flag takes. `again`: they are those that wait for others that they overlap, and have never lacked a flag.
void sends_for_long(Sim& sim, bool again) {
  Node3 rig(sim, 1);
  rig.disk->set_latency(300'000, 300'000);
  rig.store->hold(true);
  std::vector<Io> writes;
  for (u64 extent = 0; extent < 60; ++extent) writes.push_back(rig.write(extent));
  sim.sleep_us(50'000);
  rig.store->hold(false);
  rig.store->release_all();
  sim.sleep_us(1'000'000);
  for (u64 extent = 20; again && extent < 60; ++extent) writes.push_back(rig.write(extent));
  sim.wait_until([&] { return rig.node->parking.writes.load() <= 20; });
  EXPECT_EQ(rig.select(SNBF_SAVE_BMP, 1), 0);
  rig.store->hold(true);
  writes.push_back(rig.write(100));
  sim.sleep_us(2'000'000);
  EXPECT_TRUE(rig.is_waiting());
  rig.store->hold(false);
  rig.store->release_all();
  for (const Io& io : writes) EXPECT_EQ(io.wait(), 0);
  EXPECT_FALSE(sim.log().contains(kGaveUp));
}

SIM_TEST(Parking, TheTimeThatTheDiskTakesIsNotTheStores) { sends_for_long(sim, false); }
SIM_TEST(Parking, NorIsTheTimeBehindAWriteThatOverlaps) { sends_for_long(sim, true); }

// More than are looked at one by one, and one of them all over the device.
SIM_TEST(Parking, BehindManyWritesTheOrderHoldsToo) {
  Node3 rig(sim, 4);
  rig.store->hold(true);
  std::vector<Io> writes;
  for (u64 extent = 0; extent < 400; ++extent) writes.push_back(rig.write(extent));
  writes.push_back(rig.write(0, 1 << 20));
  rig.store->hold(false);
  rig.store->release_all();
  sim.wait_until([&] { return rig.reached() > 0; });
  for (u64 extent = 0; extent < 400; extent += 3) writes.push_back(rig.write(extent));
  for (const Io& io : writes) EXPECT_EQ(io.wait(), 0);
  std::vector<u64> at;
  for (const auto& seen : rig.disk->history()) at.push_back(seen.sector);
  ASSERT_EQ(at.size(), writes.size());
  EXPECT_EQ(rig.disk->history()[400].bytes, 1u << 20) << "nobody overtook it";
  EXPECT_EQ(rig.node->parking.regions.all(), 0u);
  EXPECT_FALSE(rig.node->parking.regions.may_overlap({Sector{0}, (16 << 20) / 512}));
}

// What waits behind one that it overlaps, which is long on its way, lacks no flag; only much later somebody does.
SIM_TEST(Parking, NorIsTheTimeBeforeAnyFlagWasLacking) {
  Node3 rig(sim, 1);
  EXPECT_EQ(rig.write(200).wait(), 0);
  for (u32 type : {0u, 1u}) ASSERT_EQ(rig.select(SNBF_SAVE_BMP, type), 0);
  rig.disk->set_latency(9'900'000, 9'900'000);
  std::vector<Io> writes = {rig.write(200)};  // in both files; and the disk takes one at a time
  writes.push_back(rig.write(7));
  sim.wait_until([&] {
    SpinGuard hold{rig.node->bmp_spin};
    return !rig.node->parking.sending.empty();
  });
  writes.push_back(rig.write(7));
  ASSERT_EQ(rig.node->parking.writes.load(), 2);
  sim.sleep_us(8'000'000);
  EXPECT_EQ(rig.select(SNBF_SAVE_BMP, 1), 0);
  rig.store->hold(true);
  writes.push_back(rig.write(100));
  ASSERT_EQ(rig.node->parking.writes.load(), 3);
  sim.sleep_us(5'000'000);
  EXPECT_FALSE(sim.log().contains(kGaveUp));
  rig.store->hold(false);
  rig.store->release_all();
  for (const Io& io : writes) EXPECT_EQ(io.wait(), 0);
  EXPECT_FALSE(sim.log().contains(kGaveUp));
}

// While a flag is tried, the file is open at times.
void unmount(Sim& sim, const char* name) {
  int rc = sim.unmount(sim.fs(name));
  for (; rc == -EBUSY; rc = sim.unmount(sim.fs(name))) sim.sleep_us(10'000);
  EXPECT_EQ(rc, 0);
}

constexpr const char* kMoved =
    "/store/snbf3.incr lies in another file system than before. Is its store mounted?";

// Nobody has the files open, so their store can be unmounted. A new file beneath would say nothing of the old one.
SIM_TEST(Parking, AFlagIsNotRaisedBesideTheFile) {
  Node3 rig(sim);
  EXPECT_EQ(sim.unmount(sim.fs("store")), 0);
  const Io io = rig.write(7);
  sim.sleep_us(5'000'000);
  EXPECT_FALSE(io.done());
  EXPECT_EQ(io.wait(), 0);
  EXPECT_EQ(sim.log().count(kGaveUp), 1);
  EXPECT_TRUE(sim.log().contains(kMoved));
  Bytes none;
  EXPECT_FALSE(sim.peek_file("/store/snbf3.incr", &none));
  EXPECT_EQ(sim.mount(sim.fs("store"), "/store"), 0);
  sim.wait_until([&] { return rig.file("incr") == kFlagged && rig.file("diff") == kFlagged; });
}

// What has no device below it, a tmpfs or a share, is told apart as well; and the folder may be reached by a link.
SIM_TEST(Parking, AFlagIsNotRaisedBesideAFileOnAShare) {
  Node3 rig(sim);
  ASSERT_EQ(delete_node(sim, kFilter), 0);
  ASSERT_EQ(sim.mount(sim.add_fs("share", 0, 1000), "/share"), 0);
  ASSERT_EQ(sim.make_dir("/share/bmp"), 0);
  ASSERT_EQ(sim.make_symlink("/share/bmp", "/var/link"), 0);
  snbf_filter_node_cmd record = filter_record("/dev/sda1", kFilter, 4096, "/var/link");
  ASSERT_EQ(add_filter(sim, record), 0);
  ASSERT_EQ(start_node(sim, kFilter), 0);
  rig.node = filter_at(kFilter);
  for (u32 type : {0u, 1u}) ASSERT_EQ(rig.select(SNBF_CLR_BMP, type), 0);
  EXPECT_EQ(rig.write(7).wait(), 0);
  for (u32 type : {0u, 1u}) ASSERT_EQ(rig.select(SNBF_SAVE_BMP, type), 0);
  EXPECT_FALSE(sim.log().contains("lies in another file system"));
  ASSERT_EQ(sim.unmount(sim.fs("share")), 0);
  ASSERT_EQ(sim.make_dir("/share/bmp"), 0);
  const Io io = rig.write(8);
  EXPECT_EQ(io.wait(), 0);
  EXPECT_EQ(sim.log().count(kGaveUp), 1);
  Bytes found;
  EXPECT_FALSE(sim.peek_file("/share/bmp/snbf3.incr", &found));
  ASSERT_EQ(sim.mount(sim.fs("share"), "/share"), 0);
  sim.wait_until(
      [&] { return sim.peek_file("/share/bmp/snbf3.incr", &found) && found == kFlagged; });
}

SIM_TEST(Parking, ASaveDoesNotMakeAFileBesideTheFile) {
  Node3 rig(sim);
  for (const bool flagged : {false, true}) {
    if (flagged) {
      EXPECT_EQ(rig.write(7).wait(), 0);
    }
    EXPECT_EQ(sim.unmount(sim.fs("store")), 0);
    EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), -EIO);
    EXPECT_GE(sim.log().count(kMoved, 3), 1);
    Bytes none;
    EXPECT_FALSE(sim.peek_file("/store/snbf3.incr", &none));
    EXPECT_EQ(sim.mount(sim.fs("store"), "/store"), 0);
    EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), 0);
    sim.log().clear();
  }
  EXPECT_NE(rig.file("incr"), kFlagged);
}

// Copies of the files lie there. They are not to be believed, but the old ones may come back.
SIM_TEST(Parking, TheFlagOfACopyIsNotTheFiles) {
  Node3 rig(sim);
  const Bytes whole = rig.file("incr");
  Device* other = sim.add_device({.name = "sdc1", .bytes = 4 << 20});
  EXPECT_EQ(sim.unmount(sim.fs("store")), 0);
  EXPECT_EQ(sim.mount(sim.add_fs("copy", other->number()), "/store"), 0);
  for (const char* suffix : {"incr", "diff"}) {
    EXPECT_EQ(sim.write_file(std::string("/store/snbf3.") + suffix, whole), 0);
  }
  EXPECT_EQ(rig.write(7).wait(), 0);
  EXPECT_EQ(sim.log().count(kGaveUp), 1);
  sim.wait_until([&] { return rig.file("incr") == kFlagged && rig.file("diff") == kFlagged; });
  EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), -EIO);
  EXPECT_EQ(rig.select(SNBF_LOAD_BMP, SNBF_BMP_INCR), -EIO);
  EXPECT_TRUE(rig.is_set(8)) << "nothing is known any more";
  unmount(sim, "copy");
  EXPECT_EQ(sim.mount(sim.fs("store"), "/store"), 0);
  sim.wait_until([&] { return rig.file("incr") == kFlagged && rig.file("diff") == kFlagged; });
}

// The store is mounted late, behind files that were made where it was to be.
SIM_TEST(Parking, BehindTheFlagASaveFollowsTheStore) {
  Node3 rig(sim);
  const Bytes whole = rig.file("incr");
  EXPECT_EQ(rig.write(7).wait(), 0);
  Device* late = sim.add_device({.name = "sdc1", .bytes = 4 << 20});
  EXPECT_EQ(sim.mount(sim.add_fs("late", late->number()), "/store"), 0);
  EXPECT_EQ(sim.write_file("/store/snbf3.incr", whole), 0);
  EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), 0);
  EXPECT_NE(rig.file("incr"), kFlagged);
  EXPECT_NE(rig.file("incr"), whole);
  const Io io = rig.write(9);
  EXPECT_EQ(io.wait(), 0);
  EXPECT_EQ(rig.file("incr"), kFlagged);
  EXPECT_EQ(sim.unmount(sim.fs("late")), 0);
}

// The file is whole, and older than the writes that went on without its flag.
SIM_TEST(Parking, WhatIsKnownToLackWritesIsNotLoaded) {
  Node3 rig(sim);
  sim.fail_always(Fault::FileOpen, -EPERM);
  EXPECT_EQ(rig.write(7).wait(), 0);
  EXPECT_EQ(sim.log().count(kGaveUp), 1);
  sim.clear_faults();
  EXPECT_EQ(rig.select(SNBF_LOAD_BMP, SNBF_BMP_INCR), 0);
  EXPECT_TRUE(rig.is_set(7));
  {
    SpinGuard hold{rig.node->bmp_spin};
    EXPECT_EQ(rig.node->incr_bmp_dirty, 1);
  }
  EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), 0);
  EXPECT_EQ(rig.select(SNBF_LOAD_BMP, SNBF_BMP_INCR), 0) << "and now it is";
  EXPECT_TRUE(rig.is_set(7));
}

// It was read from this kernel's memory.
SIM_TEST(Parking, WhatIsLoadedBehindASaveThatFailedIsToBeSavedAgain) {
  Node3 rig(sim);
  EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), 0);
  {
    SpinGuard hold{rig.node->bmp_spin};
    FileGuard& guard = rig.node->incr_guard;
    guard.end_save(guard.begin_save(), FileGuard::FileState::Unknown);
  }
  EXPECT_EQ(rig.select(SNBF_LOAD_BMP, SNBF_BMP_INCR), 0);
  EXPECT_FALSE(rig.is_set(7)) << "what it says is taken";
  SpinGuard hold{rig.node->bmp_spin};
  EXPECT_EQ(rig.node->incr_bmp_dirty, 1);
}

// The file covers the last extent, and not the others, whose bits the load takes away.
TEST(ParkingBySeed, ALoadAmidAWriteOfManyExtentsLosesNone) {
  constexpr u64 kFirst = 16, kExtents = 16;
  for_seeds(800, [](u64 seed) {
    Sim sim({.seed = seed});
    EXPECT_EQ(sim.run([&] {
      Node3 rig(sim);
      EXPECT_EQ(rig.write(kFirst + kExtents - 1).wait(), 0);
      EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), 0);
      Task* loader =
          sim.spawn("loader", [&] { EXPECT_EQ(rig.select(SNBF_LOAD_BMP, SNBF_BMP_INCR), 0); });
      sim.sleep_us(sim.random(150));  // about as long as it takes
      EXPECT_EQ(rig.write(kFirst, kExtents * 4096).wait(), 0);
      sim.join(loader);
      for (u64 extent = kFirst; extent < kFirst + kExtents; ++extent)
        ASSERT_TRUE(rig.is_set(extent)) << extent;
    }),
              RunEnd::Done);
  });
}

// Another file system lies where the store was mounted: its file would say nothing of the store's.
SIM_TEST(Parking, AFlagThatWasGivenUpIsNotRaisedInAnotherFileSystem) {
  Node3 rig(sim);
  sim.fail_always(Fault::FileWrite, -EIO);
  EXPECT_EQ(rig.write(7).wait(), 0);
  EXPECT_EQ(sim.log().count(kGaveUp), 1);
  unmount(sim, "store");
  sim.clear_faults();
  sim.sleep_us(130'000'000);
  Bytes none;
  EXPECT_FALSE(sim.peek_file("/store/snbf3.incr", &none));
  EXPECT_EQ(sim.mount(sim.fs("store"), "/store"), 0);
  sim.wait_until([&] { return rig.file("incr") == kFlagged && rig.file("diff") == kFlagged; });
}

// No write needs to come for it.
SIM_TEST(Parking, AFlagThatWasGivenUpIsRaisedOnceItsStoreIsBack) {
  Node3 rig(sim);
  sim.fail_always(Fault::FileWrite, -EIO);
  EXPECT_EQ(rig.write(7).wait(), 0);
  EXPECT_EQ(sim.log().count(kGaveUp), 1);
  sim.sleep_us(300'000'000);
  sim.log().clear();
  sim.sleep_us(300'000'000);
  EXPECT_LT(sim.log().count("(): Failed to write"), 20) << "it is not in the log all the time";
  sim.clear_faults();
  sim.sleep_us(61'000'000);
  EXPECT_EQ(rig.file("incr"), kFlagged);
  EXPECT_EQ(rig.file("diff"), kFlagged);
  sim.log().clear();
  sim.sleep_us(300'000'000);
  EXPECT_FALSE(sim.log().contains("Writing dirty flag")) << "and not raised again and again";
}

// Each is longer than the one before, so that the device can tell them apart.
SIM_TEST_SEEDS(Parking, AWriteDoesNotOvertakeAParkedOneThatItOverlaps, 60) {
  constexpr u64 kLast = 1000;
  Node3 rig(sim);
  for (int round = 0; round < 5; ++round) {
    for (u32 type : {0u, 1u}) EXPECT_EQ(rig.select(SNBF_CLR_BMP, type), 0);
    rig.disk->clear_history();
    std::vector<Io> ios;
    do {
      const u64 sectors = ios.size() + 1;
      ios.push_back(sim.submit(kNode(kFilter), {.op = Op::Write,
                                                .sector = kLast + 1 - sectors,
                                                .data = Bytes(sectors * 512, 1)}));
      sim.sleep_us(sim.random(8));
    } while (rig.node->parking.writes.load() != 0 && ios.size() < 200);
    for (const Io& io : ios) EXPECT_EQ(io.wait(), 0);
    const auto& seen = rig.disk->history();
    ASSERT_EQ(seen.size(), ios.size());
    for (std::size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i].sector, kLast - i);
  }
}

// Its leave is taken away again, by a save that ends while the writes before it are still being sent.
SIM_TEST(Parking, AWriteThatIsParkedTwiceWaitsForTheLimitOnce) {
  Node3 rig(sim, 1);
  rig.disk->set_latency(300'000, 300'000);
  rig.store->hold(true);
  std::vector<Io> writes;
  for (u64 extent = 0; extent < 30; ++extent) writes.push_back(rig.write(extent));
  Task* saver = sim.spawn("saver", [&] { EXPECT_EQ(rig.select(SNBF_SAVE_BMP, 1), 0); });
  sim.sleep_us(2'000'000);
  writes.push_back(rig.write(40));  // behind the save's snapshot
  sim.wait_until([&] { return sim.log().contains(kGaveUp); });
  rig.store->hold(false);
  rig.store->release_all();
  sim.wait_until([&] { return rig.is_waiting(); });
  rig.store->hold(true);
  EXPECT_LT(rig.reached(), 29u);
  for (const Io& io : writes) EXPECT_EQ(io.wait(), 0);
  EXPECT_LT(writes.back().done_at_us() - writes.front().done_at_us(), 10'000'000u);
  EXPECT_EQ(sim.log().count(kGaveUp), 2);
  rig.store->hold(false);
  rig.store->release_all();
  sim.join(saver);
}

// A command may have taken its bit, and have handed it out, while the change was still to come.
SIM_TEST(Parking, AWriteWhoseBitWasTakenMeanwhileIsMarkedAgain) {
  Node3 rig(sim);
  rig.store->hold(true);
  const Io io = rig.write(7);
  sim.sleep_us(100'000);
  ASSERT_TRUE(rig.is_set(7));
  Task* agent = sim.spawn("agent", [&] { EXPECT_EQ(rig.select(SNBF_CLR_BMP, SNBF_BMP_INCR), 0); });
  sim.wait_until([&] { return !rig.is_set(7); });
  rig.store->hold(false);
  rig.store->release_all();
  EXPECT_EQ(io.wait(), 0);
  sim.join(agent);
  EXPECT_TRUE(rig.is_set(7));
  EXPECT_EQ(rig.node->incr_guard.covers(), true);
}

SIM_TEST(Parking, StopWaitsAndSavesWhatWasParked) {
  Node3 rig(sim);
  rig.store->hold(true);
  const Io io = rig.write(7);
  Task* stopper = sim.spawn("stopper", [&] { EXPECT_EQ(stop_node(sim, kFilter), 0); });
  sim.sleep_us(2'000'000);
  EXPECT_NE(rig.node->started.load(), 0);
  rig.store->hold(false);
  rig.store->release_all();
  sim.join(stopper);
  EXPECT_TRUE(io.done());
  EXPECT_EQ(io.error(), 0);
  const Bytes file = rig.file("incr");
  ASSERT_GT(file.size(), 16u);
  EXPECT_EQ(file[16], 0x80);
}

// The save at the end fails at once there, and does not wait either.
SIM_TEST(Parking, StopWaitsForTheWritesThoughTheirStoreFails) {
  Node3 rig(sim);
  sim.fail_always(Fault::FileWrite, -EIO);
  const Io io = rig.write(7);
  ASSERT_EQ(rig.node->parking.writes.load(), 1);
  EXPECT_EQ(stop_node(sim, kFilter), 0);
  EXPECT_EQ(io.wait(), 0);
  EXPECT_EQ(rig.reached(), 1u);
  EXPECT_EQ(sim.log().count(kGaveUp, 3), 1);
  sim.clear_faults();
}

SIM_TEST(Parking, ASnapBeginsWhenNothingIsParked) {
  Node3 rig(sim);
  Device* cow = sim.add_device({.name = "sdc1", .bytes = 32 << 20});
  ASSERT_EQ(sim.mount(sim.add_fs("cow", cow->number()), "/cow"), 0);
  snbf_snap_node_cmd record = {};
  record.snbf_minor = kFilter;
  record.snap_minor = 7;
  record.chunk_size = 4096;
  std::strcpy(record.cow_bmp_fname, "/cow/snap.bmp");
  std::strcpy(record.cow_data_fname, "/cow/snap.data");
  ASSERT_EQ(sim.ioctl(SNBF_ADD_SNAP_NODE, &record, sizeof(record)), 0);
  rig.store->hold(true);
  const Io io = rig.write(7);
  Task* starter = sim.spawn("starter", [&] { EXPECT_EQ(start_node(sim, 7), 0); });
  sim.sleep_us(3'000'000);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  rig.store->hold(false);
  rig.store->release_all();
  sim.join(starter);
  EXPECT_TRUE(io.done());
  Bytes image;
  ASSERT_EQ(sim.read(kNode(7), 7 * 8, 4096, &image), 0);
  EXPECT_EQ(image, Bytes(4096, 0x5A));
  EXPECT_EQ(stop_node(sim, 7), 0);
}

// A save that is under way writes over a flag that is raised behind its snapshot.
SIM_TEST_SEEDS(Parking, WritesAmongSavesWaitForAFlagBehindTheLast, 100) {
  Node3 rig(sim);
  std::vector<Task*> savers;
  for (int i = 0; i < 2; ++i) {
    savers.push_back(sim.spawn("saver", [&] {
      for (int n = 0; n < 3; ++n) rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR);
    }));
  }
  for (u64 extent = 1; extent < 6; ++extent) {
    EXPECT_EQ(rig.write(extent).wait(), 0);
    SpinGuard hold{rig.node->bmp_spin};
    EXPECT_TRUE(rig.node->incr_guard.covers());
  }
  for (Task* saver : savers) sim.join(saver);
  const Bytes file = rig.file("incr");
  for (u64 extent = 1; extent < 6; ++extent) {
    EXPECT_TRUE(file == kFlagged || (file[16] >> extent & 1) != 0);
  }
}

SIM_TEST(Parking, AFailedSaveOfAFlaggedFileLetsNobodyWait) {
  Node3 rig(sim);
  EXPECT_EQ(rig.write(1).wait(), 0);
  sim.fail_nth(Fault::FileOpen, 1, -EPERM);
  EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), -EIO);
  rig.store->hold(true);
  EXPECT_EQ(rig.write(2).wait(), 0);
  EXPECT_EQ(rig.node->parking.writes.load(), 0);
  rig.store->hold(false);
}

// The bit is set, but not by a write, and no file has it.
SIM_TEST(Parking, AWriteWhoseBitOnlyAMergeHasSetWaits) {
  Node3 rig(sim);
  UserBuffer bits = sim.user(Bytes(512, 0xFF));
  snbf_bmp_cmd record = {kFilter, SNBF_BMP_INCR, 512, 0, bits.address()};
  sim.fail_nth(Fault::FileOpen, 1, -EPERM);
  ASSERT_EQ(sim.ioctl(SNBF_MERGE_BMP, &record, sizeof(record)), 0);
  ASSERT_TRUE(rig.is_set(7));
  const Io io = rig.write(7);
  EXPECT_EQ(io.wait(), 0);
  EXPECT_EQ(rig.file("incr"), kFlagged);
}

// What cannot be opened may be whole: everything counts as changed in memory, and the file must not
// say less.
SIM_TEST(Parking, AFileThatCouldNotBeLookedAtIsFlagged) {
  Node3 rig(sim);
  for (u32 type : {0u, 1u}) ASSERT_EQ(rig.select(SNBF_SAVE_BMP, type), 0);
  ASSERT_EQ(delete_node(sim, kFilter), 0);
  sim.fail_always(Fault::FileOpen, -EPERM);
  snbf_filter_node_cmd record = filter_record("/dev/sda1", kFilter, 4096, "/store");
  ASSERT_EQ(add_filter(sim, record), 0);
  sim.clear_faults();
  ASSERT_EQ(start_node(sim, kFilter), 0);
  EXPECT_EQ(rig.write(7).wait(), 0);
  EXPECT_EQ(rig.file("incr"), kFlagged);
  EXPECT_EQ(rig.file("diff"), kFlagged);
}

SIM_TEST(Parking, ASaveThatFailsWithinAFlaggedFileMakesTheNextWriteWait) {
  Node3 rig(sim);
  EXPECT_EQ(rig.write(1).wait(), 0);
  sim.fail_nth(Fault::FileWrite, 5, -ENOSPC);
  EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), -ENOSPC);
  EXPECT_NE(rig.file("incr"), kFlagged);
  EXPECT_EQ(rig.write(2).wait(), 0);
  EXPECT_EQ(rig.file("incr"), kFlagged);
}

// Each save takes the guard away that the flag before it gave.
SIM_TEST_SEEDS(Parking, SavesWithoutAPauseDoNotKeepWritesForEver, 5) {
  Node3 rig(sim);
  bool over = false;
  for (u32 type : {0u, 1u}) {
    sim.spawn("saver", [&, type] {
      while (!over) EXPECT_EQ(rig.select(SNBF_SAVE_BMP, type), 0);
    });
  }
  for (u64 extent = 0; extent < 10; ++extent) EXPECT_EQ(rig.write(extent).wait(), 0);
  over = true;
  EXPECT_FALSE(sim.log().contains("could not be raised"));
}

// The helper hangs in the first file while the node is deleted; the second file may be another's by then.
SIM_TEST(Parking, AHelperThatOutlivesItsNodeTouchesNoOtherFile) {
  Node3 rig(sim);
  ASSERT_EQ(stop_node(sim, kFilter), 0);
  UserBuffer bits = sim.user(Bytes(512, 0xFF));
  sim.fail_always(Fault::FileOpen, -EPERM);
  for (u32 type : {0u, 1u}) {
    snbf_bmp_cmd record = {kFilter, type, 512, 0, bits.address()};
    ASSERT_EQ(sim.ioctl(SNBF_MERGE_BMP, &record, sizeof(record)), 0);
  }
  sim.sleep_us(1'000'000);  // for the requests that they made
  sim.clear_faults();
  ASSERT_FALSE(rig.node->incr_guard.covers());
  ASSERT_FALSE(rig.node->diff_guard.covers());
  rig.store->hold(true);
  rig.node->parking.help_wanted.store(1);
  rig.node->parking.helper_wait.wake();
  sim.sleep_us(1'000'000);
  const Bytes diff = rig.file("diff");
  ASSERT_NE(diff, kFlagged);
  EXPECT_EQ(delete_node(sim, kFilter), 0);
  rig.store->hold(false);
  rig.store->release_all();
  sim.sleep_us(1'000'000);
  EXPECT_EQ(rig.file("incr"), kFlagged) << "the one that it hung in";
  EXPECT_EQ(rig.file("diff"), diff);
}

SIM_TEST(Parking, WithoutAFolderForFilesNobodyWaits) {
  load_with_partition(sim);
  snbf_filter_node_cmd record = filter_record("/dev/sda1", kFilter, 4096, "/nowhere");
  ASSERT_EQ(add_filter(sim, record), 0);
  ASSERT_EQ(start_node(sim, kFilter), 0);
  snbf_bmp_sel sel = {kFilter, SNBF_BMP_INCR};
  ASSERT_EQ(sim.ioctl(SNBF_CLR_BMP, &sel, sizeof(sel)), 0);
  const u64 before_us = sim.now_us();
  EXPECT_EQ(sim.write(kNode(kFilter), 0, Bytes(4096, 1)), 0);
  EXPECT_LT(sim.now_us() - before_us, 1'000'000u);
  EXPECT_EQ(sim.unload_driver(), 0);
}

// Each of the two nodes keeps the other's files: no flag is first.
SIM_TEST(Parking, ARingEndsAtTheLimit) {
  load_with_partition(sim);
  sim.add_device({.name = "sdb1", .bytes = 16 << 20});
  const auto attach = [&](const char* partition, int minor, const char* folder) {
    snbf_filter_node_cmd record = filter_record(partition, minor, 4096, folder);
    ASSERT_EQ(add_filter(sim, record), 0);
    ASSERT_EQ(start_node(sim, static_cast<u32>(minor)), 0);
  };
  attach("/dev/sda1", 3, "/of4");
  attach("/dev/sdb1", 4, "/of3");
  ASSERT_EQ(sim.mount(sim.add_fs("of3", kNode(3)), "/of3"), 0);
  ASSERT_EQ(sim.mount(sim.add_fs("of4", kNode(4)), "/of4"), 0);
  const auto clear = [&](u32 minor, u32 type) {
    snbf_bmp_sel sel = {minor, type};
    ASSERT_EQ(sim.ioctl(SNBF_CLR_BMP, &sel, sizeof(sel)), 0);
  };
  for (u32 type : {0u, 1u}) clear(3, type), clear(4, type);
  const u64 before_us = sim.now_us();
  EXPECT_EQ(sim.write_file("/of3/file", Bytes(4096, 1), true), 0);
  EXPECT_EQ(sim.write_file("/of4/file", Bytes(4096, 1), true), 0);
  EXPECT_LT(sim.now_us() - before_us, 60'000'000u);
  EXPECT_TRUE(sim.log().contains("could not be raised within 10 seconds"));
  EXPECT_EQ(sim.unmount(sim.fs("of3")), 0);
  EXPECT_EQ(sim.unmount(sim.fs("of4")), 0);
  EXPECT_EQ(sim.unload_driver(), 0);
}

// Node 4 over sdb1, its files on the root, and node 3 over sda1, its files on a file system that
// lies on node 4.
void stack_two_nodes(Sim& sim) {
  load_with_partition(sim);
  sim.add_device({.name = "sdb1", .bytes = 16 << 20});
  snbf_filter_node_cmd below = filter_record("/dev/sdb1", 4, 4096, "/var/bmp");
  ASSERT_EQ(add_filter(sim, below), 0);
  ASSERT_EQ(start_node(sim, 4), 0);
  ASSERT_EQ(sim.mount(sim.add_fs("upper", kNode(4)), "/upper"), 0);
  snbf_filter_node_cmd above = filter_record("/dev/sda1", 3, 4096, "/upper");
  ASSERT_EQ(add_filter(sim, above), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
}

void clear(Sim& sim, u32 minor, u32 type) {
  snbf_bmp_sel sel = {minor, type};
  EXPECT_EQ(sim.ioctl(SNBF_CLR_BMP, &sel, sizeof(sel)), 0);
}

void take_down(Sim& sim) {
  EXPECT_EQ(sim.unmount(sim.fs("upper")), 0);
  EXPECT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Parking, TheFlagsOfTheNodeBelowComeFirst) {
  stack_two_nodes(sim);
  for (u32 type : {0u, 1u}) clear(sim, 3, type);
  for (u32 type : {0u, 1u}) clear(sim, 4, type);
  sim.log().clear();
  EXPECT_EQ(sim.write(kNode(3), 0, Bytes(4096, 1)), 0);
  const std::string log = sim.log().dump();
  const std::string line = "snbf_block_write_dirty_flag(): Writing dirty flag 1 into ";
  const std::size_t above = log.find("bitmap of snbf(100, 3)", log.find(line));
  for (const char* text : {"Incremental", "Differential"}) {
    const std::size_t flag = log.find(line + text + " bitmap of snbf(100, 4)");
    EXPECT_NE(flag, std::string::npos);
    EXPECT_LT(flag, above);
  }
  EXPECT_NE(above, std::string::npos);
  take_down(sim);
}

// No write has changed it, yet the file says nothing any more: the next save must write it.
SIM_TEST(Parking, ABitmapWhoseFlagWasRaisedForAnotherNodeIsSavedAgain) {
  stack_two_nodes(sim);
  for (u32 type : {0u, 1u}) clear(sim, 3, type);
  for (u32 type : {0u, 1u}) {
    snbf_bmp_cmd all = {4, type, 0, 0, 0};
    ASSERT_EQ(sim.ioctl(SNBF_SET_BMP, &all, sizeof(all)), 0);
  }
  ASSERT_EQ(sim.proc("/proc/snbf/snbf4/incr_bmp_dirty"), "0\n");
  EXPECT_EQ(sim.write(kNode(3), 0, Bytes(4096, 1)), 0);
  EXPECT_EQ(sim.proc("/proc/snbf/snbf4/incr_bmp_dirty"), "1\n");
  EXPECT_EQ(sim.proc("/proc/snbf/snbf4/diff_bmp_dirty"), "1\n");
  take_down(sim);
}

// kdirtyd has node 4 in hand, whose flag it is to raise behind node 5's, and hangs there. Meanwhile node 4 goes, with
// its files whole: they are nobody's business any more.
SIM_TEST(Parking, TheFilesOfANodeBelowThatWasDeletedMeanwhileStayWhole) {
  load_with_partition(sim);
  Device* store = sim.add_device({.name = "sdb1", .bytes = 4 << 20});
  ASSERT_EQ(sim.mount(sim.add_fs("store", store->number()), "/store"), 0);
  const auto attach = [&](const char* partition, u32 minor, const char* folder) {
    snbf_filter_node_cmd record = filter_record(partition, static_cast<int>(minor), 4096, folder);
    ASSERT_EQ(add_filter(sim, record), 0);
    ASSERT_EQ(start_node(sim, minor), 0);
  };
  for (const char* name : {"sdc1", "sdd1"}) sim.add_device({.name = name, .bytes = 16 << 20});
  attach("/dev/sdc1", 5, "/store");
  ASSERT_EQ(sim.mount(sim.add_fs("middle", kNode(5)), "/middle"), 0);
  attach("/dev/sdd1", 4, "/middle");
  ASSERT_EQ(sim.mount(sim.add_fs("upper", kNode(4)), "/upper"), 0);
  attach("/dev/sda1", 3, "/upper");
  for (u32 minor : {3u, 4u, 5u}) {
    for (u32 type : {0u, 1u}) clear(sim, minor, type);
  }
  store->hold(true);
  const Io io = sim.submit(kNode(3), {.op = Op::Write, .sector = 0, .data = Bytes(4096, 0x5A)});
  sim.sleep_us(50'000);  // node 3's own helper would hang in a file of its own
  EXPECT_EQ(sim.unmount(sim.fs("upper")), 0);
  EXPECT_EQ(stop_node(sim, 4), 0);
  EXPECT_EQ(delete_node(sim, 4), 0);
  const auto files = [&] {
    Bytes incr, diff;
    sim.peek_file("/middle/snbf4.incr", &incr);
    sim.peek_file("/middle/snbf4.diff", &diff);
    return std::pair{incr, diff};
  };
  const auto whole = files();
  ASSERT_GT(whole.first.size(), kFlagged.size());
  store->hold(false);
  store->release_all();
  EXPECT_EQ(io.wait(), 0);
  sim.sleep_us(1'000'000);
  EXPECT_EQ(files(), whole);
  EXPECT_EQ(stop_node(sim, 3), 0);
  EXPECT_EQ(sim.unmount(sim.fs("middle")), 0);
  EXPECT_EQ(sim.unload_driver(), 0);
}

// A command writes a file of node 3 into the file system on node 4, whose flag is down; kdirtyd
// waits for that command's mutex, with a request of node 3, while the one of node 4 stands behind
// it.
SIM_TEST_SEEDS(Parking, ANodeRaisesItsOwnFlagWhereKdirtydWaitsForIt, 20) {
  stack_two_nodes(sim);
  for (int round = 0; round < 10; ++round) {
    std::vector<Task*> tasks;
    for (u32 type : {0u, 1u}) {
      tasks.push_back(sim.spawn("agent", [this, type] { clear(sim, 3, type); }));
      tasks.push_back(sim.spawn("agent", [this, type] { clear(sim, 4, type); }));
    }
    tasks.push_back(sim.spawn("writer", [this] {
      for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(sim.write(kNode(3), sim.random(4000) * 8, Bytes(4096, 1)), 0);
      }
    }));
    for (Task* task : tasks) sim.join(task);
  }
  EXPECT_FALSE(sim.log().contains("could not be raised"));
  take_down(sim);
}

// A save cancels the request; its end asks again, long before the worker would.
SIM_TEST_SEEDS(Parking, AWriteThatASaveOvertookIsNotForgotten, 40) {
  Node3 rig(sim);
  Task* saver = sim.spawn("saver", [&] {
    for (int n = 0; n < 4; ++n) EXPECT_EQ(rig.select(SNBF_SAVE_BMP, SNBF_BMP_INCR), 0);
  });
  for (u64 extent = 0; extent < 4; ++extent) {
    const u64 before_us = sim.now_us();
    EXPECT_EQ(rig.write(extent).wait(), 0);
    EXPECT_LT(sim.now_us() - before_us, 1'000'000u);
  }
  sim.join(saver);
}

// The folder is hidden by the file system on the node itself: the flag of the file beneath cannot
// be raised.
SIM_TEST(Parking, AFlagThatCanNeverBeRaisedIsNotWaitedFor) {
  Node3 rig(sim);
  ASSERT_EQ(sim.mount(sim.add_fs("own", kNode(kFilter)), "/store"), 0);
  const u64 before_us = sim.now_us();
  EXPECT_EQ(rig.write(7).wait(), 0);
  EXPECT_LT(sim.now_us() - before_us, 1'000'000u);
  EXPECT_TRUE(sim.log().contains("Can't set dirty flag in /store/snbf3.incr"));
  EXPECT_EQ(sim.unmount(sim.fs("own")), 0);
  // It was only hidden.
  sim.sleep_us(200'000'000);
  for (const char* suffix : {"incr", "diff"}) {
    const Bytes file = rig.file(suffix);
    EXPECT_TRUE(file == kFlagged || (file.size() > 16 && (file[16] >> 7 & 1) != 0)) << suffix;
  }
}

SIM_TEST(Parking, AFailedStartOfAThreadUndoesTheNode) {
  load_with_partition(sim);
  for (u64 nth : {1u, 2u}) {
    sim.fail_nth(Fault::ThreadStart, nth, -EAGAIN);
    EXPECT_EQ(add_filter(sim, "/dev/sda1", 3), -EAGAIN);
    EXPECT_EQ(sim.log().count(
                  "snbf_ioctl_add_filter_node(): Failed to start the threads of snbf3: rc=-11", 3),
              static_cast<int>(nth));
  }
  EXPECT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  EXPECT_EQ(sim.unload_driver(), 0);
}

// Its file work hangs: deletion does not wait for ever, and the record lives until the thread lets
// it go.
SIM_TEST(Parking, DeletionDoesNotWaitForAHelperThatHangs) {
  Node3 rig(sim);
  rig.store->hold(true);
  const Io io = rig.write(7);
  EXPECT_EQ(io.wait(), 0);  // at the limit
  // A stop would wait for the mutex and save, so the node counts as stopped.
  rig.node->started.store(0);
  bool over = false;
  Task* deleter = sim.spawn("deleter", [&] {
    EXPECT_EQ(delete_node(sim, kFilter), 0);
    over = true;
  });
  sim.sleep_us(60'000'000);
  EXPECT_TRUE(over);
  rig.store->hold(false);
  rig.store->release_all();
  sim.join(deleter);
}

}  // namespace
}  // namespace snbf::sim
