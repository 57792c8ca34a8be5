#include <string>

#include "block/start.h"
#include "block/stop.h"
#include "driver_rig.h"

namespace snbf::sim {
namespace {

constexpr u32 kNoNodes[] = {0, 255, 256, 0x7fffffff, 0xffffffff};

SIM_TEST(StartNode, AFilterNodeOnlyBecomesStarted) {
  load_with_partition(sim, {.debug = 3});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  EXPECT_EQ(info_of(sim, 3).started, 0u);
  sim.log().clear();
  ASSERT_EQ(start_node(sim, 3), 0);
  EXPECT_EQ(info_of(sim, 3).started, 1u);
  EXPECT_TRUE(sim.log().contains("snbf_ioctl_start_node(): Starting snbf(100, 3)"));
  EXPECT_TRUE(sim.log().contains("snbf_block_start_device(): Starting snbf(100, 3)"));
  EXPECT_TRUE(
      sim.log().contains("snbf_block_start_device(): snbf(100, 3) has been started successfully"));
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(StartNode, AStartedNodeIsRefusedAndStaysAsItIs) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  sim.log().clear();
  EXPECT_EQ(start_node(sim, 3), -EALREADY);
  EXPECT_EQ(sim.log().count("snbf_block_start_device(): snbf(100, 3) has already been started", 3),
            1);
  EXPECT_EQ(info_of(sim, 3).started, 1u);
  EXPECT_FALSE(filter_at(3)->node_mutex.is_mine());
  ASSERT_EQ(stop_node(sim, 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(StartNode, AMinorWithoutANodeIsRefused) {
  load_with_partition(sim);
  for (u32 minor : kNoNodes) {
    sim.log().clear();
    EXPECT_EQ(start_node(sim, minor), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_ioctl_start_node(): Nothing is known about snbf(100, " +
                                  std::to_string(static_cast<int>(minor)) + ")",
                              3),
              1);
  }
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(StopNode, AMinorWithoutANodeIsRefused) {
  load_with_partition(sim);
  for (u32 minor : kNoNodes) {
    sim.log().clear();
    EXPECT_EQ(stop_node(sim, minor), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_ioctl_stop_node(): Nothing is known about snbf(100, " +
                                  std::to_string(static_cast<int>(minor)) + ")",
                              3),
              1);
  }
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(StopNode, AStoppedNodeSaysNothingMore) {
  load_with_partition(sim, {.debug = 4});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  sim.log().clear();
  EXPECT_EQ(stop_node(sim, 3), 0);
  EXPECT_TRUE(sim.log().contains("snbf_block_stop_device(): Stopping snbf(100, 3)"));
  EXPECT_FALSE(sim.log().contains("has been stopped successfully"));
  EXPECT_FALSE(sim.log().contains("Saving dirty"));
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(StopNode, SavesTheDirtyBitmaps) {
  load_with_partition(sim, {.debug = 3});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  EXPECT_FALSE(sim.exists("/var/bmp/snbf3.incr"));
  sim.log().clear();
  ASSERT_EQ(stop_node(sim, 3), 0);
  EXPECT_TRUE(sim.log().contains("Saving dirty incr/diff bitmaps to disk"));
  EXPECT_TRUE(
      sim.log().contains("snbf_block_stop_device(): snbf(100, 3) has been stopped successfully"));
  Bytes file;
  ASSERT_EQ(sim.read_file("/var/bmp/snbf3.incr", &file), 0);
  EXPECT_EQ(file.size(), 16u + 32u);
  EXPECT_EQ(sim.proc("/proc/snbf/snbf3/incr_bmp_dirty"), "0\n");
  EXPECT_EQ(sim.proc("/proc/snbf/snbf3/diff_bmp_dirty"), "0\n");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(StopNode, AFailedSaveDoesNotKeepItRunning) {
  load_with_partition(sim, {.debug = 3});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  sim.fail_always(Fault::FileOpen, -EIO);
  EXPECT_EQ(stop_node(sim, 3), 0);
  sim.clear_faults();
  EXPECT_EQ(info_of(sim, 3).started, 0u);
  EXPECT_EQ(sim.proc("/proc/snbf/snbf3/incr_bmp_dirty"), "1\n");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(StopNode, AnOpenNodeIsRefusedAndStaysStarted) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  OpenNode node;
  ASSERT_EQ(sim.open_node(kNode(3), PLAT_MODE_READ, &node), 0);
  sim.log().clear();
  EXPECT_EQ(stop_node(sim, 3), -EBUSY);
  EXPECT_EQ(sim.log().count("snbf_block_stop_device(): snbf(100, 3) is still being used.", 3), 1);
  EXPECT_EQ(info_of(sim, 3).started, 1u);
  ASSERT_EQ(sim.close_node(&node), 0);
  EXPECT_EQ(stop_node(sim, 3), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(StopNode, AFilterWhoseSnapRefusesStaysStarted) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  SnapNode* snap = hang_snap(filter_at(3), 4);
  snap->started.store(1);
  snap->use_cnt.store(1);
  sim.log().clear();
  EXPECT_EQ(stop_node(sim, 3), -EBUSY);
  EXPECT_EQ(sim.log().count("snbf_block_stop_device(): snbf(100, 4) is still being used.", 3), 1);
  EXPECT_EQ(info_of(sim, 3).started, 1u);
  EXPECT_FALSE(sim.log().contains("Saving dirty"));
  snap->use_cnt.store(0);
  snap->started.store(0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST_SEEDS(StartStop, RacingCommandsEndInOneOfTheTwoStates, 30) {
  load_with_partition(sim, {.debug = 1});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  for (int i = 0; i < 2; ++i) {
    sim.spawn("starter", [&] {
      for (int round = 0; round < 4; ++round) {
        const int rc = start_node(sim, 3);
        EXPECT_TRUE(rc == 0 || rc == -EALREADY) << rc;
      }
    });
    sim.spawn("stopper", [&] {
      for (int round = 0; round < 4; ++round) EXPECT_EQ(stop_node(sim, 3), 0);
    });
  }
  sim.join_all();
  EXPECT_FALSE(sim.log().contains("not owner"));
  ASSERT_EQ(sim.unload_driver(), 0);
}

}  // namespace
}  // namespace snbf::sim
