#include "block/create.h"

#include <cctype>
#include <cstring>
#include <string>

#include "core/log.h"
#include "driver_rig.h"

namespace snbf::sim {
namespace {

// One add that must fail, with its one line; nothing changes.
void expect_refused(Sim& sim, snbf_filter_node_cmd record, int error, const std::string& message) {
  const snbf_filter_node_cmd before = record;
  sim.log().clear();
  EXPECT_EQ(add_filter(sim, record), error) << message;
  EXPECT_EQ(sim.log().count("snbf_ioctl_add_filter_node(): " + message, 3), 1) << sim.log().dump();
  EXPECT_EQ(std::memcmp(&record, &before, sizeof(record)), 0);
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
}

bool is_uuid(const char* text) {
  if (std::strlen(text) != 38) return false;
  for (int i = 0; i < 38; ++i) {
    const char c = text[i];
    const bool is_dash = i == 9 || i == 14 || i == 19 || i == 24;
    if (i == 0    ? c != '{'
        : i == 37 ? c != '}'
        : is_dash ? c != '-'
                  : !(std::isdigit(c) || (c >= 'a' && c <= 'f'))) {
      return false;
    }
  }
  return true;
}

SIM_TEST(AddFilterNode, MakesAStoppedNodeAndFillsTheRecord) {
  load_with_partition(sim);
  snbf_filter_node_cmd record = filter_record("/dev/sda1", 7);
  sim.log().clear();
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_EQ(record.minor, 7);
  EXPECT_STREQ(record.name, "snbf7");
  EXPECT_TRUE(is_uuid(record.uuid)) << record.uuid;
  EXPECT_TRUE(sim.log().contains(
      "snbf_ioctl_add_filter_node(): Adding new node: HDD=/dev/sda1, snbf_minor=7, "
      "extent_size=65536, bmap_dir=/var/bmp"));
  EXPECT_TRUE(sim.log().contains("Successfully derived HDD major="));
  EXPECT_TRUE(sim.log().contains("snbf_ioctl_add_filter_node(): Attaching snbf7 to /dev/sda1"));
  EXPECT_TRUE(
      sim.log().contains("dev_size=16777216, extent_size=65536, block_size=512, bmp_size=32"));
  const FilterNode* filter = filter_at(7);
  ASSERT_NE(filter, nullptr);
  EXPECT_EQ(filter->dev_type, kFilterNode);
  EXPECT_EQ(filter->started.load(), 0);
  EXPECT_STREQ(filter->dev_name, "/dev/snbf/snbf7");
  EXPECT_STREQ(filter->uuid, record.uuid);
  EXPECT_STREQ(filter->incr_bmp_fname, "/var/bmp/snbf7.incr");
  EXPECT_STREQ(filter->diff_bmp_fname, "/var/bmp/snbf7.diff");
  EXPECT_TRUE(sim.disk_exists(kNode(7)));
  EXPECT_EQ(sim.disk_sectors(kNode(7)), (16u << 20) / 512);
  EXPECT_FALSE(sim.disk_read_only(kNode(7)));
  EXPECT_TRUE(sim.exists("/dev/snbf/snbf7"));
  // The claim alone is left of the openings.
  EXPECT_EQ(sim.device("sda1")->openers(), 1);
  ASSERT_EQ(sim.unload_driver(), 0);
  EXPECT_EQ(sim.device("sda1")->openers(), 0);
}

SIM_TEST(AddFilterNode, KeepsTheNamesThatItIsGiven) {
  load_with_partition(sim);
  snbf_filter_node_cmd record = filter_record("/dev/sda1", 1);
  std::strcpy(record.name, "root volume");
  std::strcpy(record.uuid, "{mine}");
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_STREQ(record.name, "root volume");
  EXPECT_STREQ(record.uuid, "{mine}");
  EXPECT_STREQ(filter_at(1)->name, "root volume");
  // Disk and device file go by the minor.
  EXPECT_STREQ(filter_at(1)->dev_name, "/dev/snbf/snbf1");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, TwoNodesGetDifferentUuids) {
  load_with_partition(sim);
  sim.add_device({.name = "sdb1", .bytes = 1 << 20});
  snbf_filter_node_cmd a = filter_record("/dev/sda1", 0);
  snbf_filter_node_cmd b = filter_record("/dev/sdb1", 1);
  ASSERT_EQ(add_filter(sim, a), 0);
  ASSERT_EQ(add_filter(sim, b), 0);
  EXPECT_STRNE(a.uuid, b.uuid);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, SizesTheBitmapsByTheExtents) {
  load_with_partition(sim);
  sim.add_device({.name = "gib", .bytes = 1 << 30});
  sim.add_device({.name = "odd", .bytes = 33 * 4096 + 512});
  sim.add_device({.name = "sector", .bytes = 512});
  ASSERT_EQ(add_filter(sim, "/dev/gib", 0), 0);
  EXPECT_EQ(filter_at(0)->extent_cnt, 16384u);
  EXPECT_EQ(filter_at(0)->incr_bmp_size, 2048u);
  EXPECT_EQ(filter_at(0)->diff_bmp_size, 2048u);
  EXPECT_EQ(filter_at(0)->extent_shift, 16u);
  snbf_filter_node_cmd record = filter_record("/dev/odd", 1, 4096);
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_EQ(filter_at(1)->extent_cnt, 34u);
  EXPECT_EQ(filter_at(1)->incr_bmp_size, 5u);
  record = filter_record("/dev/sector", 2, 1u << 31);
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_EQ(filter_at(2)->extent_cnt, 1u);
  EXPECT_EQ(filter_at(2)->incr_bmp_size, 1u);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, LoadsTheDifferentialBitmapFirst) {
  load_with_partition(sim);
  sim.log().clear();
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 0), 0);
  const std::string log = sim.log().dump();
  EXPECT_LT(log.find("Loading Differential bitmap"), log.find("Loading Incremental bitmap"));
  // There were no files: everything counts as changed.
  EXPECT_EQ(info_of(sim, 0).incr_bmp_full, 1u);
  EXPECT_EQ(info_of(sim, 0).diff_bmp_full, 1u);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, ANegativeMinorIsTheLowestFreeOne) {
  load_with_partition(sim, {.debug = 1, .max_blk_minor = 2});
  for (int i = 0; i < 4; ++i) {
    sim.add_device({.name = "p" + std::to_string(i), .bytes = 1 << 20});
  }
  ASSERT_EQ(add_filter(sim, "/dev/p0", 0), 0);
  ASSERT_EQ(add_filter(sim, "/dev/p1", 1), 0);
  snbf_filter_node_cmd record = filter_record("/dev/p2", -1);
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_EQ(record.minor, 2);
  EXPECT_STREQ(record.name, "snbf2");
  expect_refused(sim, filter_record("/dev/p3", -1), -ENOSPC,
                 "All 3 of SNBF minor nodes have already been used up.");
  ASSERT_EQ(delete_node(sim, 1), 0);
  record = filter_record("/dev/p3", -2147483647 - 1);
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_EQ(record.minor, 1);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, RefusesAMinorThatIsTakenOrTooBig) {
  load_with_partition(sim);
  sim.add_device({.name = "sdb1", .bytes = 1 << 20});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 5), 0);
  expect_refused(sim, filter_record("/dev/sdb1", 5), -EINVAL,
                 "Device minor number 5 is already taken");
  expect_refused(sim, filter_record("/dev/sdb1", 256), -EINVAL,
                 "Minor number 256 is too big: max=255");
  ASSERT_EQ(add_filter(sim, "/dev/sdb1", 255), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, NoNodeGetsAMinorThatADeviceNumberHasNoRoomFor) {
  load_with_partition(sim, {.debug = 1, .max_blk_minor = 1 << 21});
  expect_refused(sim, filter_record("/dev/sda1", 1 << 20), -EINVAL,
                 "Minor number 1048576 is too big: max=1048575");
  ASSERT_EQ(add_filter(sim, "/dev/sda1", (1 << 20) - 1), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, RefusesWhatIsNoPartition) {
  load_with_partition(sim);
  ASSERT_EQ(sim.write_file("/var/file", Bytes(10)), 0);
  ASSERT_EQ(sim.make_node_file("/var/tty", PLAT_S_IFCHR | 0600, dev(4, 0)), 0);
  ASSERT_EQ(sim.make_node_file("/var/gone", PLAT_S_IFBLK | 0600, dev(8, 4000)), 0);
  expect_refused(sim, filter_record("", 0), -EINVAL, "Empty HDD name passed as input.");
  expect_refused(sim, filter_record("/dev/missing", 0), -ENOENT,
                 "Unable to lookup /dev/missing: rc=-2");
  expect_refused(sim, filter_record("sda1", 0), -ENOENT, "Unable to lookup sda1: rc=-22");
  expect_refused(sim, filter_record("/var/file", 0), -EINVAL, "/var/file is not a block device.");
  expect_refused(sim, filter_record("/var", 0), -EINVAL, "/var is not a block device.");
  expect_refused(sim, filter_record("/var/tty", 0), -EINVAL, "/var/tty is not a block device.");
  expect_refused(sim, filter_record("/var/gone", 0), -EINVAL,
                 "Unable to open HDD device /var/gone (8, 4000)");
  sim.fail_nth(Fault::PathLookup, 1, -EIO);
  expect_refused(sim, filter_record("/dev/sda1", 0), -ENOENT, "Unable to lookup /dev/sda1: rc=-5");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, FollowsALinkToThePartition) {
  load_with_partition(sim);
  ASSERT_EQ(sim.make_symlink("/dev/sda1", "/var/link"), 0);
  ASSERT_EQ(add_filter(sim, "/var/link", 0), 0);
  EXPECT_EQ(filter_at(0)->hdd_dev, sim.device("sda1")->number());
  EXPECT_STREQ(filter_at(0)->hdd_name, "/var/link");
  expect_refused(sim, filter_record("/dev/sda1", 1), -EINVAL,
                 "Found a duplicate snbf0 node going to the same HDD device /var/link");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, RefusesAPartitionThatIsMountedOrOpen) {
  load_with_partition(sim);
  Device* disk = sim.device("sda1");
  FileSystem* fs = sim.add_fs("ext", disk->number());
  ASSERT_EQ(sim.mount(fs, "/mnt"), 0);
  expect_refused(sim, filter_record("/dev/sda1", 0), -EBUSY,
                 "Can't attach to mounted HDD device /dev/sda1");
  ASSERT_EQ(sim.unmount(fs), 0);
  OpenNode open;
  ASSERT_EQ(sim.open_node(disk->number(), PLAT_MODE_READ, &open), 0);
  expect_refused(sim, filter_record("/dev/sda1", 0), -EBUSY,
                 "Can't attach to an open HDD device /dev/sda1");
  ASSERT_EQ(sim.close_node(&open), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 0), 0);
  // Nothing can mount it under the node.
  EXPECT_EQ(sim.mount(fs, "/mnt"), -EBUSY);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, FailuresOfEitherOpeningAreAnswered) {
  load_with_partition(sim);
  const int number = static_cast<int>(sim.device("sda1")->number());
  const std::string unable = "Unable to open HDD device /dev/sda1 (" +
                             std::to_string(number >> 20) + ", " +
                             std::to_string(number & 0xfffff) + ")";
  sim.fail_nth(Fault::BdevOpen, 1, -EIO);
  expect_refused(sim, filter_record("/dev/sda1", 0), -EINVAL, unable);
  sim.fail_nth(Fault::BdevOpen, 2, -EIO);
  expect_refused(sim, filter_record("/dev/sda1", 0), -EINVAL, unable);
  sim.fail_nth(Fault::BdevOpen, 2, -EBUSY);
  expect_refused(sim, filter_record("/dev/sda1", 0), -EBUSY,
                 "Can't attach to an open HDD device /dev/sda1");
  EXPECT_EQ(sim.device("sda1")->openers(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, RefusesAZonedDevice) {
  load_with_partition(sim);
  sim.add_device({.name = "zoned", .bytes = 1 << 20, .zoned = true});
  expect_refused(sim, filter_record("/dev/zoned", 0), -EINVAL,
                 "Can't attach to zoned HDD device /dev/zoned");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, RefusesExtentSizesThatDoNotFit) {
  load_with_partition(sim);
  sim.add_device({.name = "large", .bytes = 1 << 20, .block_bytes = 4096});
  for (u32 size : {0u, 3u, 12288u, 65537u, 0xffffffffu}) {
    expect_refused(sim, filter_record("/dev/sda1", 0, size), -EINVAL,
                   "Extent size must be a power of 2");
  }
  for (u32 size : {1u, 256u}) {
    expect_refused(sim, filter_record("/dev/sda1", 0, size), -EINVAL,
                   "Extent size must be a multiple of block size (512B)");
  }
  for (u32 size : {512u, 2048u}) {
    expect_refused(sim, filter_record("/dev/sda1", 0, size), -EINVAL,
                   "Extent size can't be smaller than page size (4096B)");
  }
  expect_refused(sim, filter_record("/dev/large", 0, 2048), -EINVAL,
                 "Extent size must be a multiple of block size (4096B)");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, RefusesASecondNodeOverThePartition) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  expect_refused(sim, filter_record("/dev/sda1", 4), -EINVAL,
                 "Found a duplicate snbf3 node going to the same HDD device /dev/sda1");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, TextsWithoutTerminatorsEndAtTheirFields) {
  load_with_partition(sim);
  snbf_filter_node_cmd record = filter_record("/dev/sda1", 3);
  std::memset(record.uuid, 'u', sizeof(record.uuid));
  std::memset(record.name, 'n', sizeof(record.name));
  record.reserved = 'r';
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_EQ(std::string(filter_at(3)->uuid), std::string(38, 'u'));
  EXPECT_EQ(std::string(filter_at(3)->name), std::string(127, 'n'));
  std::memset(&record, 'x', sizeof(record));
  record.minor = 4;
  EXPECT_EQ(add_filter(sim, record), -ENOENT);
  EXPECT_EQ(find_node(4), nullptr);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, TrimsTheBitmapFolder) {
  load_with_partition(sim);
  snbf_filter_node_cmd record = filter_record("/dev/sda1", 3, kExtentBytes, "/var/bmp///");
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_STREQ(filter_at(3)->bmp_dir, "/var/bmp");
  EXPECT_STREQ(filter_at(3)->incr_bmp_fname, "/var/bmp/snbf3.incr");
  EXPECT_STREQ(record.bmp_dir, "/var/bmp///");
  ASSERT_EQ(delete_node(sim, 3), 0);
  record = filter_record("/dev/sda1", 3, kExtentBytes, "/");
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_STREQ(filter_at(3)->incr_bmp_fname, "//snbf3.incr");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, RefusesAFolderWhoseFilesCouldNotBeToldApart) {
  load_with_partition(sim);
  const std::string deep = "/" + std::string(1022, 'd');
  expect_refused(sim, filter_record("/dev/sda1", 3, kExtentBytes, deep), -EINVAL,
                 "Bitmap directory name is too long");
  // "/snbf3.incr" and the terminator just fit.
  snbf_filter_node_cmd record = filter_record("/dev/sda1", 3, kExtentBytes, deep.substr(0, 1012));
  ASSERT_EQ(add_filter(sim, record), 0);
  EXPECT_EQ(std::strlen(filter_at(3)->diff_bmp_fname), 1023u);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, AnyFileInTheWayOfTheDeviceFileIsReplaced) {
  load_with_partition(sim);
  ASSERT_EQ(sim.make_node_file("/dev/snbf/snbf3", PLAT_S_IFBLK | 0600, dev(1, 1)), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  EXPECT_STREQ(filter_at(3)->dev_name, "/dev/snbf/snbf3");
  ASSERT_EQ(sim.unload_driver(), 0);
  EXPECT_FALSE(sim.exists("/dev/snbf/snbf3"));
}

SIM_TEST(AddFilterNode, ANodeWithoutADeviceFileIsStillANode) {
  load_with_partition(sim);
  sim.fail_nth(Fault::Mknod, 1, -EIO);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  EXPECT_STREQ(filter_at(3)->dev_name, "");
  EXPECT_EQ(sim.proc("/proc/snbf/snbf3/dev_name"), "\n");
  ASSERT_EQ(start_node(sim, 3), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, FailuresOfTheDiskAreUndone) {
  load_with_partition(sim);
  sim.fail_nth(Fault::DiskAlloc, 1);
  expect_refused(sim, filter_record("/dev/sda1", 3), -ENOMEM,
                 "Failed to allocate new generic disk.");
  sim.fail_nth(Fault::DiskAdd, 1, -EEXIST);
  expect_refused(sim, filter_record("/dev/sda1", 3), -EEXIST,
                 "Failed to add generic disk snbf3: rc=-17");
  sim.fail_nth(Fault::Virt, 1);
  expect_refused(sim, filter_record("/dev/sda1", 3), -ENOMEM,
                 "Failed to allocate 32+32 bytes of memory for bitmaps");
  sim.fail_nth(Fault::Virt, 2);
  expect_refused(sim, filter_record("/dev/sda1", 3), -ENOMEM,
                 "Failed to allocate 32+32 bytes of memory for bitmaps");
  EXPECT_EQ(sim.device("sda1")->openers(), 0);
  EXPECT_FALSE(sim.disk_exists(kNode(3)));
  EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf3"));
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

// Another node carries swap, say: what is allocated with the disk waits for somebody who waits for a write to that.
SIM_TEST(AddFilterNode, AllocatesItsDiskWithTheTableUnlocked) {
  load_with_partition(sim);
  sim.add_device({.name = "sdb1", .bytes = 1 << 20});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  sim.set_reclaim(kNode(3), 64, 100);
  EXPECT_EQ(add_filter(sim, "/dev/sdb1", 4), 0);
  sim.clear_reclaim();
  ASSERT_EQ(sim.unload_driver(), 0);
}

// Of 256 extents; the node is at rest.
std::string bits_of(const u32* bitmap) {
  return std::string(reinterpret_cast<const char*>(bitmap), 32);
}

// Nothing is known of what changed before: all of it counts.
SIM_TEST(AddFilterNode, WithoutMemoryToLoadABitmapEverythingCountsAsChanged) {
  load_with_partition(sim);
  for (u64 nth : {3, 4}) {  // behind the bitmaps themselves
    sim.fail_nth(Fault::Virt, nth);
    sim.log().clear();
    ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
    EXPECT_EQ(sim.log().count("snbf_block_load_bmp(): Failed to allocate 32 bytes.", 3), 1);
    EXPECT_EQ(bits_of(filter_at(3)->incr_bmp), std::string(32, '\xFF'));
    EXPECT_EQ(bits_of(filter_at(3)->diff_bmp), std::string(32, '\xFF'));
    ASSERT_EQ(delete_node(sim, 3), 0);
  }
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, RefusesMoreExtentsThanCanBeCounted) {
  load_with_partition(sim);
  // The size of an empty device, less one, is the largest there is.
  sim.add_device({.name = "empty", .bytes = 0});
  expect_refused(sim, filter_record("/dev/empty", 0, 1u << 31), -EINVAL,
                 "Too many extents on HDD device /dev/empty: extent size -2147483648 is too small");
  EXPECT_EQ(sim.device("empty")->openers(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

// Each allocation in turn: the add fails whole or succeeds, and the same add works right after.
SIM_TEST_SEEDS(AddFilterNode, LeavesNothingWhicheverAllocationFails, 2) {
  load_with_partition(sim, {.debug = 1});
  const u64 before = sim.live_blocks();
  int rc = 0;
  for (int nth = 1;
       fails_at(sim, Fault::AnyAllocation, nth, [&] { rc = add_filter(sim, "/dev/sda1", 3); });
       ++nth) {
    if (rc == 0) {
      EXPECT_EQ(delete_node(sim, 3), 0);
    } else {
      EXPECT_TRUE(rc == -ENOMEM || rc == -EIO || rc == -EINVAL || rc == -EFAULT) << rc;
    }
    EXPECT_EQ(find_node(3), nullptr);
    EXPECT_EQ(sim.device("sda1")->openers(), 0);
    EXPECT_FALSE(sim.disk_exists(kNode(3)));
    EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf3"));
    EXPECT_EQ(sim.live_blocks(), before) << "after the failure of allocation " << nth;
  }
  EXPECT_EQ(rc, 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST_SEEDS(AddFilterNode, OnlyOneOfTwoRacersGetsThePartitionAndTheMinor, 30) {
  load_with_partition(sim, {.debug = 1});
  sim.add_device({.name = "sdb1", .bytes = 1 << 20});
  int done[3] = {};
  sim.spawn("a", [&] { done[0] = add_filter(sim, "/dev/sda1", 3) == 0; });
  sim.spawn("b", [&] { done[1] = add_filter(sim, "/dev/sda1", 4) == 0; });
  sim.spawn("c", [&] { done[2] = add_filter(sim, "/dev/sdb1", 3) == 0; });
  sim.join_all();
  EXPECT_EQ(done[0] + done[1], 1);
  EXPECT_LE(done[0] + done[2], 1);
  EXPECT_GE(done[0] + done[2], 1);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(AddFilterNode, WaitsForNoDriverThatIsNotThere) {
  sim.add_device({.name = "sda1"});
  sim.use_driver();
  init_table_locks();
  snbf_filter_node_cmd record = filter_record("/dev/sda1", 0);
  EXPECT_EQ(snbf_ioctl_add_filter_node(record), -ENXIO);
  EXPECT_EQ(sim.log().errors(), 1);
  snbf_debug_destroy();
}

}  // namespace
}  // namespace snbf::sim
