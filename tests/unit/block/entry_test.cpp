#include "block/entry.h"

#include <string>
#include <vector>

#include "driver_rig.h"
#include "platform/entry.h"

namespace snbf::sim {
namespace {

constexpr unsigned kBlkGetSize = 0x1260;
constexpr unsigned kBlkBszGet = 0x80081270;

void load_with_started_node(Sim& sim, const DriverParams& params = {.debug = 4}) {
  load_with_partition(sim, params);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
}

SIM_TEST(BlockOpen, AStoppedNodeIsRefusedAndNotCounted) {
  load_with_partition(sim, {.debug = 2});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  sim.log().clear();
  OpenNode node;
  EXPECT_EQ(sim.open_node(kNode(3), PLAT_MODE_READ, &node), -EIO);
  EXPECT_TRUE(sim.log().contains("snbf_block_open(): Opening snbf(100, 3)"));
  EXPECT_EQ(sim.log().count("snbf_block_open(): snbf(100, 3) hasn't been started yet.", 3), 1);
  EXPECT_EQ(filter_at(3)->use_cnt.load(), 0);
  EXPECT_EQ(filter_at(3)->bdev, nullptr);
  EXPECT_EQ(sim.module_references(), 0);
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(BlockOpen, CountsOpeningsAndKeepsTheDeviceUntilTheLastRelease) {
  load_with_started_node(sim);
  plat_bdev* const first = reinterpret_cast<plat_bdev*>(0x1000);
  plat_bdev* const second = reinterpret_cast<plat_bdev*>(0x2000);
  ASSERT_EQ(snbf_block_open(first, kNode(3)), 0);
  EXPECT_EQ(filter_at(3)->bdev, first);
  EXPECT_TRUE(sim.log().contains("snbf_block_open(): bdev="));
  ASSERT_EQ(snbf_block_open(second, kNode(3)), 0);
  EXPECT_EQ(filter_at(3)->bdev, second);
  EXPECT_EQ(filter_at(3)->use_cnt.load(), 2);
  EXPECT_EQ(sim.module_references(), 2);
  ASSERT_EQ(snbf_block_release(kNode(3)), 0);
  EXPECT_TRUE(sim.log().contains("snbf_block_release(): Releasing snbf(100, 3)"));
  EXPECT_EQ(filter_at(3)->use_cnt.load(), 1);
  EXPECT_EQ(filter_at(3)->bdev, second);
  ASSERT_EQ(snbf_block_release(kNode(3)), 0);
  EXPECT_EQ(filter_at(3)->use_cnt.load(), 0);
  EXPECT_EQ(filter_at(3)->bdev, nullptr);
  EXPECT_EQ(sim.module_references(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(BlockOpen, AnUnknownMinorIsRefusedEverywhere) {
  load_with_partition(sim);
  for (u32 minor : {0u, 255u, 256u, 0xfffffu}) {
    const std::string name = "snbf(100, " + std::to_string(minor) + ")";
    sim.log().clear();
    EXPECT_EQ(snbf_block_open(nullptr, kNode(minor)), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_block_open(): Unable to find " + name, 3), 1);
    EXPECT_EQ(snbf_block_release(kNode(minor)), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_block_release(): Unable to find " + name, 3), 1);
    EXPECT_EQ(snbf_block_ioctl(kNode(minor), 0, kBlkGetSize, 0), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_block_ioctl(): Unknown device " + name, 3), 1);
  }
  EXPECT_EQ(sim.module_references(), 0);
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(BlockOpen, AModuleThatIsGoingIsNotOpened) {
  load_with_started_node(sim);
  sim.set_module_going(true);
  OpenNode node;
  EXPECT_EQ(sim.open_node(kNode(3), PLAT_MODE_READ, &node), -ENXIO);
  sim.set_module_going(false);
  EXPECT_EQ(filter_at(3)->use_cnt.load(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(BlockRelease, TheLastOneSavesDirtyBitmaps) {
  load_with_started_node(sim);
  OpenNode first;
  OpenNode second;
  ASSERT_EQ(sim.open_node(kNode(3), PLAT_MODE_WRITE, &first), 0);
  ASSERT_EQ(sim.open_node(kNode(3), PLAT_MODE_WRITE, &second), 0);
  sim.log().clear();
  ASSERT_EQ(sim.close_node(&first), 0);
  EXPECT_FALSE(sim.log().contains("Saving dirty incr/diff bitmaps"));
  ASSERT_EQ(sim.close_node(&second), 0);
  EXPECT_TRUE(sim.log().contains("Saving dirty incr/diff bitmaps"));
  EXPECT_EQ(sim.proc("/proc/snbf/snbf3/incr_bmp_dirty"), "0\n");
  EXPECT_EQ(sim.proc("/proc/snbf/snbf3/diff_bmp_dirty"), "0\n");
  ASSERT_EQ(sim.unload_driver(), 0);
}

// The files of one node lie on a file system on the other, and the other way round: both saves go
// through the request path while deleters wait for the table.
SIM_TEST_SEEDS(BlockRelease, SavesThroughOtherNodesWhileTheTableIsWanted, 30) {
  sim.add_device({.name = "sda1", .bytes = 8 << 20});
  sim.add_device({.name = "sdb1", .bytes = 8 << 20});
  sim.add_device({.name = "sdc1", .bytes = 1 << 20});
  sim.make_dir("/a");
  sim.make_dir("/var");
  sim.make_dir("/var/bmp");
  ASSERT_EQ(sim.load_driver({.debug = 0}), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 0), 0);
  ASSERT_EQ(start_node(sim, 0), 0);
  FileSystem* fs = sim.add_fs("on node 0", kNode(0));
  ASSERT_EQ(sim.mount(fs, "/a"), 0);
  snbf_filter_node_cmd record = filter_record("/dev/sdb1", 1, kExtentBytes, "/a");
  ASSERT_EQ(add_filter(sim, record), 0);
  ASSERT_EQ(start_node(sim, 1), 0);
  sim.spawn("user", [&] {
    for (int round = 0; round < 4; ++round) {
      OpenNode node;
      ASSERT_EQ(sim.open_node(kNode(1), PLAT_MODE_WRITE, &node), 0);
      EXPECT_EQ(sim.write(kNode(1), sim.random(1000) * 8, Bytes(4096)), 0);
      EXPECT_EQ(sim.close_node(&node), 0);
    }
  });
  sim.spawn("agent", [&] {
    for (int round = 0; round < 3; ++round) {
      EXPECT_EQ(add_filter(sim, "/dev/sdc1", 2), 0);
      EXPECT_EQ(delete_node(sim, 2), 0);
    }
  });
  sim.join_all();
  ASSERT_EQ(delete_node(sim, 1), 0);
  ASSERT_EQ(sim.unmount(fs), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(BlockIoctl, IsPassedOnToThePartition) {
  load_with_started_node(sim, {.debug = 2});
  std::vector<unsigned> seen;
  sim.device("sda1")->set_ioctl([&](int, unsigned cmd, unsigned long arg) {
    seen.push_back(cmd);
    return static_cast<int>(arg);
  });
  OpenNode node;
  ASSERT_EQ(sim.open_node(kNode(3), PLAT_MODE_READ, &node), 0);
  EXPECT_EQ(sim.node_ioctl(node, kBlkGetSize, 42), 42);
  EXPECT_EQ(sim.node_ioctl(node, 0x5331, 7), 7);
  EXPECT_EQ(seen, (std::vector<unsigned>{kBlkGetSize, 0x5331}));
  EXPECT_TRUE(sim.log().contains("snbf_block_ioctl(): cmd=0x1260 (BLKGETSIZE)"));
  EXPECT_TRUE(sim.log().contains("snbf_block_ioctl(): cmd=0x5331 (UNKNOWN)"));
  ASSERT_EQ(sim.close_node(&node), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(BlockIoctl, NamesTheKnownOnesInTheLog) {
  load_with_started_node(sim, {.debug = 2});
  const std::pair<unsigned, const char*> names[] = {
      {0x125D, "BLKROSET"},     {0x125E, "BLKROGET"}, {0x1260, "BLKGETSIZE"},
      {0x1261, "BLKFLSBUF"},    {0x1262, "BLKRASET"}, {0x1263, "BLKRAGET"},
      {0x1268, "BLKSSZGET"},    {0x1269, "BLKPG"},    {0x80081270, "BLKBSZGET"},
      {0x40081271, "BLKBSZSET"}};
  for (const auto& [number, name] : names) {
    sim.log().clear();
    EXPECT_EQ(snbf_block_ioctl(kNode(3), 0, number, 0x1000), 0) << name;
    EXPECT_TRUE(sim.log().contains("(" + std::string(name) + ")")) << sim.log().dump();
  }
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(BlockIoctl, ADirectionNeedsAnAddressOfTheCallers) {
  load_with_started_node(sim);
  int calls = 0;
  sim.device("sda1")->set_ioctl([&](int, unsigned, unsigned long) { return ++calls, 0; });
  EXPECT_EQ(snbf_block_ioctl(kNode(3), 0, kBlkBszGet, ~0ul - 3), -EFAULT);
  EXPECT_EQ(snbf_block_ioctl(kNode(3), 0, 0x40081271, ~0ul - 3), -EFAULT);
  EXPECT_EQ(calls, 0);
  // Without a direction the argument is no address.
  EXPECT_EQ(snbf_block_ioctl(kNode(3), 0, kBlkGetSize, ~0ul - 3), 0);
  EXPECT_EQ(calls, 1);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(BlockIoctl, APartitionThatKnowsNoneAnswersZero) {
  load_with_started_node(sim);
  EXPECT_EQ(snbf_block_ioctl(kNode(3), 0, 0x5331, 0), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(BlockIoctl, OfASnapIsServedByItsFilter) {
  load_with_started_node(sim);
  sim.device("sda1")->set_ioctl([](int, unsigned, unsigned long) { return 11; });
  SnapNode* snap = hang_snap(filter_at(3), 4);
  EXPECT_EQ(snbf_block_ioctl(kNode(4), 0, kBlkGetSize, 0), 11);
  FilterNode* const filter = snap->filter_node;
  snap->filter_node = nullptr;
  EXPECT_EQ(snbf_block_ioctl(kNode(4), 0, kBlkGetSize, 0), -EIO);
  EXPECT_EQ(sim.log().count("snbf_block_ioctl(): Internal error: fdev==NULL.", 3), 1);
  snap->filter_node = filter;
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST_SEEDS(BlockOpen, OpenersAndAStopperAgree, 40) {
  load_with_started_node(sim, {.debug = 0});
  for (int i = 0; i < 2; ++i) {
    sim.spawn("opener", [&] {
      for (int round = 0; round < 8; ++round) {
        OpenNode node;
        const int rc = sim.open_node(kNode(3), PLAT_MODE_WRITE, &node);
        EXPECT_TRUE(rc == 0 || rc == -EIO) << rc;
        if (rc != 0) continue;
        // While it is open it cannot be stopped, so the write goes through.
        EXPECT_EQ(sim.write(kNode(3), 8 * sim.random(100), Bytes(4096)), 0);
        EXPECT_EQ(sim.close_node(&node), 0);
      }
    });
  }
  sim.spawn("stopper", [&] {
    for (int round = 0; round < 10; ++round) {
      const int rc = stop_node(sim, 3);
      EXPECT_TRUE(rc == 0 || rc == -EBUSY) << rc;
      if (rc == 0) {
        EXPECT_EQ(start_node(sim, 3), 0);
      }
    }
  });
  sim.join_all();
  EXPECT_EQ(filter_at(3)->use_cnt.load(), 0);
  EXPECT_EQ(sim.module_references(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

}  // namespace
}  // namespace snbf::sim
