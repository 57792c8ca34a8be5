// Snap nodes are made as their record asks, or refused as the agent expects it.
#include <new>

#include "snap_bench.h"

namespace snbf::sim {
namespace {

SIM_TEST(AddSnapNode, MakesAStoppedReadOnlyNodeAndFillsTheRecord) {
  SnapBench bench(sim, {.bytes = (1 << 20) + 512});
  snbf_snap_node_cmd record = bench.record("/store/one", 7, 8192);
  ASSERT_EQ(bench.add(record), 0);
  EXPECT_EQ(sim.log().count(
                "snbf_ioctl_add_snap_node(): Creating new snap node: snap_minor=7, snbf_minor=3, "
                "chunk_size=8192, cow_bmp_fname=/store/one.bmp, cow_data_fname=/store/one.data"),
            1);
  EXPECT_EQ(sim.log().count(
                "snbf_ioctl_add_snap_node(): Attaching snap snbf(100, 7) to filter snbf(100, 3)"),
            1);
  EXPECT_EQ(record.snap_minor, 7);
  EXPECT_EQ(record.chunk_size, 8192u);
  EXPECT_STREQ(record.name, "snbf7");
  const std::string uuid = record.uuid;
  ASSERT_EQ(uuid.size(), 38u);
  EXPECT_EQ(uuid.front(), '{');
  EXPECT_EQ(uuid.back(), '}');

  ASSERT_TRUE(sim.disk_exists(kNode(7)));
  EXPECT_TRUE(sim.disk_read_only(kNode(7)));
  EXPECT_EQ(sim.disk_sectors(kNode(7)), 2049u);
  const snbf_info info = info_of(sim, 7);
  EXPECT_EQ(info.dev_type, u32{SNBF_DEV_SNAP});
  EXPECT_EQ(info.started + info.snap_valid + info.stop_pending + info.del_pending, 0u);
  EXPECT_EQ(info.chunk_cnt, 129u);
  EXPECT_EQ(info.cow_bmp_size, 17u);
  EXPECT_EQ(info.cow_data_size, 129u * 8192u);
  EXPECT_EQ(info_of(sim, kOrigin).snap_cnt, 1u);
  EXPECT_EQ(info_of(sim, kOrigin).snap_minors[0], 7u);

  EXPECT_EQ(bench.proc(7, "dev_type"), "snap\n");
  EXPECT_EQ(bench.proc(7, "name"), "snbf7\n");
  EXPECT_EQ(bench.proc(7, "dev_name"), "/dev/snbf/snbf7\n");
  EXPECT_EQ(bench.proc(7, "filter_minor"), "3\n");
  EXPECT_EQ(bench.proc(7, "chunk_size"), "8192\n");
  EXPECT_EQ(bench.proc(7, "cow_bmp_fname"), "/store/one.bmp\n");
  EXPECT_EQ(bench.proc(7, "cow_data_fname"), "/store/one.data\n");
  EXPECT_EQ(bench.proc(7, "started"), "0\n");
  EXPECT_TRUE(sim.exists("/dev/snbf/snbf7"));
  // Nothing is opened or copied before the start.
  EXPECT_FALSE(sim.exists("/store/one.bmp"));
  EXPECT_FALSE(sim.exists("/store/one.data"));
  EXPECT_FALSE(sim.log().contains("kcowd"));
  EXPECT_EQ(bench.read(7, 0), -EIO);
}

SIM_TEST(AddSnapNode, NeedsNoStartedFilter) {
  SnapBench bench(sim, {.started = false});
  EXPECT_EQ(bench.add(7), 0);
}

SIM_TEST(AddSnapNode, KeepsTheNamesThatItIsGiven) {
  SnapBench bench(sim);
  snbf_snap_node_cmd record = bench.record("/store/one", 7);
  std::strcpy(record.name, "backup1");
  std::strcpy(record.uuid, "{mine}");
  ASSERT_EQ(bench.add(record), 0);
  EXPECT_STREQ(record.uuid, "{mine}");
  EXPECT_EQ(bench.proc(7, "name"), "backup1\n");
  EXPECT_EQ(bench.proc(7, "uuid"), "{mine}\n");
  EXPECT_EQ(bench.proc(7, "dev_name"), "/dev/snbf/backup1\n");
  EXPECT_TRUE(sim.exists("/dev/snbf/backup1"));
  EXPECT_TRUE(sim.proc_exists("/proc/snbf/snbf7"));
}

// What such a name would replace is not the driver's.
SIM_TEST(AddSnapNode, ANameThatLeadsAwayGetsNoDeviceFile) {
  SnapBench bench(sim);
  ASSERT_EQ(sim.write_file("/dev/other", Bytes(4, 1)), 0);
  ASSERT_EQ(sim.make_dir("/dev/snbf/a"), 0);
  int minor = 7;
  for (const char* name : {"control", "../other", "a/b", ".."}) {
    snbf_snap_node_cmd record = bench.record("/store/one", minor);
    std::strcpy(record.name, name);
    ASSERT_EQ(bench.add(record), 0);
    EXPECT_EQ(bench.proc(static_cast<u32>(minor), "dev_name"), "\n") << name;
    EXPECT_EQ(bench.proc(static_cast<u32>(minor), "name"), std::string(name) + "\n");
    ++minor;
  }
  EXPECT_EQ(bench.file("/dev/other"), Bytes(4, 1));
}

SIM_TEST(AddSnapNode, ANodeWithoutADeviceFileIsStillANode) {
  SnapBench bench(sim);
  sim.fail_nth(Fault::Mknod, 1);
  ASSERT_EQ(bench.add(7), 0);
  EXPECT_EQ(bench.proc(7, "dev_name"), "\n");
  EXPECT_TRUE(sim.disk_exists(kNode(7)));
}

SIM_TEST(AddSnapNode, RefusesFilesOfNoDevice) {
  SnapBench bench(sim);
  for (const bool data : {false, true}) {
    for (const char* path : {"/somewhere.cow", "relative.cow", ""}) {
      snbf_snap_node_cmd record = bench.record("/store/one", 7);
      std::strcpy(data ? record.cow_data_fname : record.cow_bmp_fname, path);
      sim.log().clear();
      EXPECT_EQ(bench.add(record), -EINVAL);
      EXPECT_EQ(
          bench.errors(
              std::string("snbf_ioctl_add_snap_node(): Failed to get ID of the device with ") +
              path),
          1);
    }
  }
  EXPECT_EQ(find_node(7), nullptr);
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
}

SIM_TEST(AddSnapNode, RefusesFilesOnTheNodeItself) {
  SnapBench bench(sim);
  FileSystem* own = sim.add_fs("own", kNode(kOrigin));
  ASSERT_EQ(sim.mount(own, "/own"), 0);
  for (const bool data : {false, true}) {
    snbf_snap_node_cmd record = bench.record("/store/one", 7);
    std::strcpy(data ? record.cow_data_fname : record.cow_bmp_fname, "/own/file");
    sim.log().clear();
    EXPECT_EQ(bench.add(record), -EINVAL);
    EXPECT_EQ(
        bench.errors(
            "snbf_ioctl_add_snap_node(): File /own/file can't be on the partition being snapped!"),
        1);
  }
  ASSERT_EQ(sim.unmount(own), 0);
  EXPECT_EQ(bench.add(7), 0);
}

SIM_TEST(AddSnapNode, RefusesWhatIsNoFilter) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.add(7), 0);
  for (const u32 minor : {7u, 8u, 255u, 256u, 0x7fffffffu, 0xffffffffu}) {
    snbf_snap_node_cmd record = bench.record("/store/one");
    record.snbf_minor = minor;
    sim.log().clear();
    EXPECT_EQ(bench.add(record), -EINVAL);
    EXPECT_EQ(bench.errors("snbf_ioctl_add_snap_node(): Invalid filter node minor number " +
                           std::to_string(static_cast<int>(minor)) + " passed."),
              1);
  }
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
}

SIM_TEST(AddSnapNode, RefusesChunkSizesThatDoNotFit) {
  SnapBench bench(sim);
  for (const u32 size : {0u, 6144u, 3u, 0xffffffffu}) {
    snbf_snap_node_cmd record = bench.record("/store/one", 7, size);
    sim.log().clear();
    EXPECT_EQ(bench.add(record), -EINVAL);
    EXPECT_EQ(bench.errors("snbf_ioctl_add_snap_node(): Chunk size must be a power of 2"), 1);
  }
  for (const u32 size : {1u, 512u, 2048u}) {
    snbf_snap_node_cmd record = bench.record("/store/one", 7, size);
    sim.log().clear();
    EXPECT_EQ(bench.add(record), -EINVAL);
    EXPECT_EQ(bench.errors(
                  "snbf_ioctl_add_snap_node(): Chunk size must be a multiple of page size (4096B)"),
              1);
  }
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  EXPECT_EQ(find_node(7), nullptr);
}

SIM_TEST(AddSnapNode, RefusesAMinorThatIsTakenOrTooBig) {
  SnapBench bench(sim, {.minor_max = 9});
  snbf_snap_node_cmd record = bench.record("/store/one", 10);
  EXPECT_EQ(bench.add(record), -EINVAL);
  EXPECT_EQ(bench.errors("snbf_ioctl_add_snap_node(): Minor number 10 is too big: max=9"), 1);
  record = bench.record("/store/one", static_cast<int>(kOrigin));
  EXPECT_EQ(bench.add(record), -EINVAL);
  EXPECT_EQ(bench.errors("snbf_ioctl_add_snap_node(): Device minor number 3 is already taken"), 1);
  EXPECT_EQ(info_of(sim, kOrigin).snap_cnt, 0u);
  for (const int expected : {0, 1, 2, 4, 5, 6, 7, 8, 9}) {
    record = bench.record("/store/" + std::to_string(expected));
    ASSERT_EQ(bench.add(record), 0);
    EXPECT_EQ(record.snap_minor, expected);
    EXPECT_EQ(record.name, "snbf" + std::to_string(expected));
  }
  record = bench.record("/store/more");
  EXPECT_EQ(bench.add(record), -ENOSPC);
  EXPECT_EQ(
      bench.errors(
          "snbf_ioctl_add_snap_node(): All 10 of SNBF minor nodes have already been used up."),
      1);
  EXPECT_EQ(record.snap_minor, -1);
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
}

SIM_TEST_SEEDS(AddSnapNode, TheTwoHundredFiftySeventhIsRefused, 1) {
  SnapBench bench(sim, {.debug = 0, .minor_max = 300});
  for (int i = 0; i < 256; ++i) {
    snbf_snap_node_cmd record = bench.record("/store/" + std::to_string(i));
    ASSERT_EQ(bench.add(record), 0) << i;
  }
  snbf_snap_node_cmd record = bench.record("/store/more");
  EXPECT_EQ(bench.add(record), -ENOSPC);
  EXPECT_EQ(bench.errors(
                "snbf_ioctl_add_snap_node(): Too many snaps already associated with snbf(100, 3)."),
            1);
  EXPECT_EQ(info_of(sim, kOrigin).snap_cnt, 256u);
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  ASSERT_EQ(delete_node(sim, 0), 0);
  EXPECT_EQ(bench.add(record), 0);
}

SIM_TEST_SEEDS(AddSnapNode, EnlargesTheChunksOfALargeVolume, 2) {
  SnapBench bench(sim, {.bytes = u64{4} << 40, .extent_size = 16 << 20});
  snbf_snap_node_cmd record = bench.record("/store/one", 7, 4096);
  ASSERT_EQ(bench.add(record), 0);
  EXPECT_EQ(record.chunk_size, 4096u);
  EXPECT_EQ(info_of(sim, 7).chunk_cnt, 1u << 30);
  EXPECT_EQ(sim.log().errors(), 0);

  sim.add_device({.name = "sdc1", .bytes = (u64{4} << 40) + 512});
  snbf_filter_node_cmd other = filter_record("/dev/sdc1", 4, 16 << 20);
  ASSERT_EQ(add_filter(sim, other), 0);
  sim.log().clear();
  record = bench.record("/store/two", 8, 4096);
  record.snbf_minor = 4;
  ASSERT_EQ(bench.add(record), 0);
  EXPECT_EQ(record.chunk_size, 8192u);
  EXPECT_EQ(info_of(sim, 8).chunk_size, 8192u);
  EXPECT_EQ(info_of(sim, 8).chunk_cnt, (1u << 29) + 1);
  EXPECT_EQ(bench.errors("snbf_ioctl_add_snap_node(): Chunk size 4096 is too small for such a "
                         "large volume 4398046511616"),
            1);
  EXPECT_EQ(bench.errors("snbf_ioctl_add_snap_node(): We have automatically increased it to 8192"),
            1);

  // Compared with the enlarged size, before any enlargement of its own; and the lock stays held.
  sim.log().clear();
  record = bench.record("/store/three", 9, 4096);
  record.snbf_minor = 4;
  EXPECT_EQ(bench.add(record), -EINVAL);
  EXPECT_EQ(
      bench.errors(
          "snbf_ioctl_add_snap_node(): snbf(100, 4) already has one snap with chunk size 8192. All "
          "snaps must have identical chunk sizes."),
      1);
  snbf_blkdev_rwlock.write_unlock();
  ASSERT_EQ(delete_node(sim, 4), 0);
}

// Kept: two refusals return with the table write-locked.
SIM_TEST(AddSnapNode, RefusesAVolumeThatNoChunkSizeFits) {
  SnapBench bench(sim);
  const u64 bytes = bench.filter()->dev_size;
  bench.filter()->dev_size = ~u64{0};
  EXPECT_EQ(bench.add(7), -EINVAL);
  EXPECT_EQ(bench.errors("No chunk size is large enough for a volume of "), 1);
  bench.expect_table(0);
  bench.filter()->dev_size = bytes;
  EXPECT_EQ(bench.add(7), 0);
}

SIM_TEST(AddSnapNode, UnequalChunkSizesLeaveTheTableLocked) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.add(7, 4096), 0);
  ASSERT_EQ(snbf_blkdev_rwlock.count(), 0);
  snbf_snap_node_cmd record = bench.record("/store/two", 8, 8192);
  EXPECT_EQ(bench.add(record), -EINVAL);
  EXPECT_EQ(
      bench.errors(
          "snbf_ioctl_add_snap_node(): snbf(100, 3) already has one snap with chunk size 4096. All "
          "snaps must have identical chunk sizes."),
      1);
  EXPECT_EQ(snbf_blkdev_rwlock.count(), -1);
  snbf_blkdev_rwlock.write_unlock();
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  EXPECT_EQ(find_node(8), nullptr);
  EXPECT_EQ(bench.add(8, 4096), 0);
}

SIM_TEST_SEEDS(AddSnapNode, WithoutMemoryForTheRecordTheTableStaysLocked, 2) {
  SnapBench bench(sim);
  int held = 0;
  for (int nth = 1;; ++nth) {
    sim.log().clear();
    const bool reached = fails_at(sim, Fault::Heap, nth, [&] {
      const int rc = bench.add(7);
      if (snbf_blkdev_rwlock.count() == 0) return;
      ++held;
      EXPECT_EQ(rc, -ENOMEM);
      EXPECT_EQ(bench.errors("snbf_ioctl_add_snap_node(): Memory allocation failure"), 1);
      EXPECT_EQ(snbf_blkdev_rwlock.count(), -1);
      snbf_blkdev_rwlock.write_unlock();
      EXPECT_EQ(find_node(7), nullptr);
    });
    if (find_node(7) != nullptr) {
      EXPECT_EQ(delete_node(sim, 7), 0);
    }
    EXPECT_EQ(info_of(sim, kOrigin).snap_cnt, 0u);
    if (!reached || testing::Test::HasFailure()) break;
  }
  EXPECT_EQ(held, 1);
}

// Kept: without a disk the record is freed, but its entries in the table and in the filter's list
// stay.
SIM_TEST(AddSnapNode, WithoutADiskTheFreedRecordStaysInTheTable) {
  SnapBench bench(sim);
  sim.fail_nth(Fault::DiskAlloc, 1);
  EXPECT_EQ(bench.add(7), -ENOMEM);
  EXPECT_EQ(bench.errors("snbf_ioctl_add_snap_node(): Failed to allocate new generic disk."), 1);
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  EXPECT_NE(snbf_blkdev_arr[7], nullptr);
  FilterNode* filter = bench.filter();
  EXPECT_FALSE(filter->snaps.empty());
  EXPECT_FALSE(sim.disk_exists(kNode(7)));
  EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf7"));
  // Nobody may look at them any more: taken out by hand.
  snbf_blkdev_arr[7] = nullptr;
  new (&filter->snaps) List<SnapNode, BySnapOrder>();
}

// The node carries swap, say: what is allocated with the disk waits for somebody who waits for a write to it.
SIM_TEST(AddSnapNode, AllocatesItsDiskWithTheTableUnlocked) {
  SnapBench bench(sim);
  sim.set_reclaim(kNode(kOrigin), 64, 100);
  EXPECT_EQ(bench.add(7), 0);
  sim.clear_reclaim();
}

SIM_TEST(AddSnapNode, FailuresBehindTheDiskAreUndone) {
  SnapBench bench(sim);
  for (const Fault fault : {Fault::DiskAdd, Fault::ProcCreate}) {
    for (int nth = 1; fails_at(sim, fault, nth,
                               [&] {
                                 if (bench.add(7) != 0) {
                                   EXPECT_EQ(find_node(7), nullptr);
                                   EXPECT_FALSE(sim.disk_exists(kNode(7)));
                                   EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf7"));
                                   EXPECT_EQ(info_of(sim, kOrigin).snap_cnt, 0u);
                                 }
                                 EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
                                 if (find_node(7) != nullptr) {
                                   EXPECT_EQ(delete_node(sim, 7), 0);
                                 }
                               });
         ++nth) {
    }
  }
}

SIM_TEST_SEEDS(AddSnapNode, RacersGetDifferentMinorsAndNeverMoreThanTheLimit, 20) {
  SnapBench bench(sim, {.debug = 0, .minor_max = 9});
  sim.set_udev(true);
  int made = 0;
  for (int task = 0; task < 3; ++task) {
    sim.spawn("agent", [&, task] {
      for (int i = 0; i < 5; ++i) {
        snbf_snap_node_cmd record = bench.record("/store/" + std::to_string(10 * task + i));
        const int rc = bench.add(record);
        if (rc == 0) ++made;
        if (rc != 0) {
          EXPECT_EQ(rc, -ENOSPC);
        }
      }
    });
  }
  sim.join_all();
  sim.set_udev(false);
  EXPECT_EQ(made, 9);
  EXPECT_EQ(info_of(sim, kOrigin).snap_cnt, 9u);
}

}  // namespace
}  // namespace snbf::sim
