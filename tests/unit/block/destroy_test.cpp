#include "block/destroy.h"

#include <string>

#include "driver_rig.h"
#include "filter/kdirtyd.h"

namespace snbf::sim {
namespace {

// Both halves, as a command has them.
int destroy(Node* node, int remove_files) {
  KsMutexGuard life{lifecycle_mutex};
  DoomedNodes doomed;
  int rc;
  {
    TableWriteGuard table;
    rc = snbf_block_destroy_device(node, remove_files, doomed);
  }
  take_apart(doomed);
  return rc;
}

void give_cow_files(Sim& sim, SnapNode* snap) {
  const std::string stem = "/var/bmp/cow" + std::to_string(snap->minor);
  std::strcpy(snap->cow_bmp_fname, (stem + ".bmp").c_str());
  std::strcpy(snap->cow_data_fname, (stem + ".data").c_str());
  ASSERT_EQ(sim.write_file(snap->cow_bmp_fname, Bytes(1)), 0);
  ASSERT_EQ(sim.write_file(snap->cow_data_fname, Bytes(1)), 0);
}

SIM_TEST(DeleteNode, TakesEverythingOfTheNode) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  const u64 before = sim.live_blocks();
  ASSERT_EQ(delete_node(sim, 3), 0);
  EXPECT_TRUE(sim.log().contains("snbf_ioctl_del_node(): Removing snbf(100, 3)"));
  EXPECT_TRUE(sim.log().contains("snbf_block_destroy_device(): Destroying snbf(100, 3)"));
  EXPECT_TRUE(sim.log().contains(
      "snbf_block_destroy_device(): snbf(100, 3) has been destroyed successfully"));
  EXPECT_LT(sim.live_blocks(), before);
  EXPECT_EQ(find_node(3), nullptr);
  EXPECT_FALSE(sim.disk_exists(kNode(3)));
  EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf3"));
  EXPECT_FALSE(sim.exists("/dev/snbf/snbf3"));
  EXPECT_EQ(sim.device("sda1")->openers(), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DeleteNode, StopsAStartedNodeFirst) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  ASSERT_EQ(delete_node(sim, 3), 0);
  EXPECT_TRUE(sim.log().contains("snbf_block_stop_device(): snbf(100, 3) has been stopped"));
  EXPECT_TRUE(sim.exists("/var/bmp/snbf3.incr"));
  ASSERT_EQ(sim.unload_driver(), 0);
}

// kdirtyd hangs in the file of another node: what it was asked for this one is forgotten with the node.
SIM_TEST(DeleteNode, DoesNotWaitForEverForItsDirtyRequests) {
  load_with_partition(sim);
  sim.add_device({.name = "sda2", .bytes = 1 << 20});
  Device* store = sim.add_device({.name = "sdb1", .bytes = 4 << 20});
  ASSERT_EQ(sim.mount(sim.add_fs("store", store->number()), "/store"), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  snbf_filter_node_cmd other = filter_record("/dev/sda2", 4, kExtentBytes, "/store");
  ASSERT_EQ(add_filter(sim, other), 0);
  store->hold(true);
  snbf_sched_write_dirty_flag(*filter_at(4), SNBF_BMP_INCR);
  sim.sleep_us(1'000'000);
  for (const u32 type : {SNBF_BMP_INCR, SNBF_BMP_DIFF}) {
    snbf_sched_write_dirty_flag(*filter_at(3), type);
  }
  const u64 before = sim.now_us();
  EXPECT_EQ(delete_node(sim, 3), 0);
  EXPECT_GE(sim.now_us() - before, 9'000'000u);
  EXPECT_LE(sim.now_us() - before, 12'000'000u);
  EXPECT_EQ(find_node(3), nullptr);
  store->hold(false);
  store->release_all();
  sim.sleep_us(1'000'000);
  EXPECT_FALSE(sim.exists("/var/bmp/snbf3.incr")) << "its request outlived it";
  EXPECT_TRUE(sim.exists("/store/snbf4.incr"));
  ASSERT_EQ(sim.unload_driver(), 0);
}

// It is the node's own file that kdirtyd hangs in.
SIM_TEST(DeleteNode, DoesNotWaitForEverForAFlagThatHangs) {
  load_with_partition(sim);
  Device* store = sim.add_device({.name = "sdb1", .bytes = 4 << 20});
  ASSERT_EQ(sim.mount(sim.add_fs("store", store->number()), "/store"), 0);
  snbf_filter_node_cmd record = filter_record("/dev/sda1", 3, kExtentBytes, "/store");
  ASSERT_EQ(add_filter(sim, record), 0);
  store->hold(true);
  snbf_sched_write_dirty_flag(*filter_at(3), SNBF_BMP_INCR);
  sim.sleep_us(1'000'000);
  const u64 before = sim.now_us();
  EXPECT_EQ(delete_node(sim, 3), 0);
  EXPECT_LE(sim.now_us() - before, 25'000'000u);
  EXPECT_EQ(sim.log().count("Continuing anyway", 3), 1);
  store->hold(false);
  store->release_all();
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DeleteNode, AMinorWithoutANodeIsRefused) {
  load_with_partition(sim);
  for (u32 minor : {0u, 255u, 256u, 0x7fffffffu, 0xffffffffu}) {
    sim.log().clear();
    EXPECT_EQ(delete_node(sim, minor), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_ioctl_del_node(): Nothing is known about snbf(100, " +
                                  std::to_string(static_cast<int>(minor)) + ")",
                              3),
              1);
  }
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DeleteNode, AnOpenNodeFailsAtItsStop) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  OpenNode node;
  ASSERT_EQ(sim.open_node(kNode(3), PLAT_MODE_READ, &node), 0);
  sim.log().clear();
  EXPECT_EQ(delete_node(sim, 3), -EBUSY);
  EXPECT_EQ(sim.log().count("snbf_block_stop_device(): snbf(100, 3) is still being used.", 3), 1);
  EXPECT_FALSE(sim.log().contains("Destroying"));
  EXPECT_NE(find_node(3), nullptr);
  ASSERT_EQ(sim.close_node(&node), 0);
  ASSERT_EQ(delete_node(sim, 3), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DestroyDevice, RefusesWhatIsStillInUse) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  sim.log().clear();
  EXPECT_EQ(destroy(nullptr, 1), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_block_destroy_device(): Internal error: dev==NULL", 3), 1);
  filter_at(3)->use_cnt.store(1);
  EXPECT_EQ(destroy(filter_at(3), 1), -EBUSY);
  EXPECT_EQ(sim.log().count("snbf_block_destroy_device(): snbf(100, 3)is still being used.", 3), 1);
  filter_at(3)->use_cnt.store(0);
  ASSERT_EQ(start_node(sim, 3), 0);
  EXPECT_EQ(destroy(filter_at(3), 1), -EBUSY);
  EXPECT_EQ(
      sim.log().count(
          "snbf_block_destroy_device(): Can't destroy started snbf(100, 3). Stop it first!", 3),
      1);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DeleteNode, AFilterTakesItsSnapsAndTheirFilesWithIt) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  give_cow_files(sim, hang_snap(filter_at(3), 9));
  give_cow_files(sim, hang_snap(filter_at(3), 4));
  sim.log().clear();
  ASSERT_EQ(delete_node(sim, 3), 0);
  EXPECT_EQ(sim.log().count("Deleting associated snap snbf(100, 9)"), 1);
  EXPECT_EQ(sim.log().count("Deleting associated snap snbf(100, 4)"), 1);
  const std::string log = sim.log().dump();
  EXPECT_LT(log.find("snbf(100, 9) has been destroyed"),
            log.find("snbf(100, 4) has been destroyed"));
  EXPECT_LT(log.find("snbf(100, 4) has been destroyed"),
            log.find("snbf(100, 3) has been destroyed"));
  for (const char* file :
       {"/var/bmp/cow9.bmp", "/var/bmp/cow9.data", "/var/bmp/cow4.bmp", "/var/bmp/cow4.data"}) {
    EXPECT_FALSE(sim.exists(file)) << file;
  }
  for (u32 minor : {3u, 4u, 9u}) EXPECT_EQ(find_node(minor), nullptr);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Unload, KeepsTheFilesOfSnaps) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  give_cow_files(sim, hang_snap(filter_at(3), 9));
  give_cow_files(sim, hang_snap(filter_at(3), 0));
  ASSERT_EQ(sim.unload_driver(), 0);
  for (const char* file :
       {"/var/bmp/cow9.bmp", "/var/bmp/cow9.data", "/var/bmp/cow0.bmp", "/var/bmp/cow0.data"}) {
    EXPECT_TRUE(sim.exists(file)) << file;
  }
}

SIM_TEST(DestroyDevice, ASnapThatRefusesEndsItsFiltersDeletion) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  hang_snap(filter_at(3), 4);
  SnapNode* busy = hang_snap(filter_at(3), 5);
  busy->use_cnt.store(1);
  EXPECT_EQ(delete_node(sim, 3), -EBUSY);
  EXPECT_EQ(sim.log().count("snbf_block_destroy_device(): snbf(100, 5)is still being used.", 3), 1);
  // The one that went before stays gone, and really is.
  EXPECT_EQ(find_node(4), nullptr);
  EXPECT_TRUE(sim.log().contains("snbf(100, 4) has been destroyed successfully"));
  EXPECT_NE(find_node(3), nullptr);
  EXPECT_EQ(info_of(sim, 3).snap_cnt, 1u);
  busy->use_cnt.store(0);
  ASSERT_EQ(delete_node(sim, 3), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DestroyDevice, ThatOfAStoppingSnapIsPostponed) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  SnapNode* older = hang_snap(filter_at(3), 4);
  SnapNode* newer = hang_snap(filter_at(3), 5);
  give_cow_files(sim, older);
  give_cow_files(sim, newer);
  newer->started.store(1);
  newer->stop_pending.store(1);
  EXPECT_EQ(destroy(newer, 1), 0);
  EXPECT_TRUE(sim.log().contains(
      "snbf_block_destroy_device(): STOP is pending for snbf(100, 5). Postponing delete as well."));
  EXPECT_EQ(find_node(5), newer);
  EXPECT_EQ(newer->del_pending.load(), 1);

  // A filter does not go while one of its snaps stays.
  EXPECT_EQ(destroy(newer->filter_node, 1), -EBUSY);
  EXPECT_EQ(find_node(4), nullptr);
  EXPECT_EQ(find_node(5), newer);
  newer->started.store(0);
  ASSERT_EQ(delete_node(sim, 3), 0);
  EXPECT_EQ(find_node(5), nullptr);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DestroyDevice, PostponedDeletesAreWorkedOffFromTheOldestEnd) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  SnapNode* snaps[4];
  for (u32 i = 0; i < 4; ++i) {
    snaps[i] = hang_snap(filter_at(3), 4 + i);
    give_cow_files(sim, snaps[i]);
  }
  snaps[1]->del_pending.store(1);
  snaps[2]->del_pending.store(1);
  ASSERT_EQ(destroy(snaps[0], 1), 0);
  EXPECT_EQ(find_node(4), nullptr);
  EXPECT_EQ(find_node(5), nullptr);
  EXPECT_EQ(find_node(6), nullptr);
  EXPECT_FALSE(sim.exists("/var/bmp/cow6.data"));
  EXPECT_EQ(find_node(7), snaps[3]);
  EXPECT_TRUE(sim.exists("/var/bmp/cow7.data"));
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DestroyDevice, AChainOfPostponedDeletesEndsAtOneThatRefuses) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  SnapNode* snaps[3];
  for (u32 i = 0; i < 3; ++i) snaps[i] = hang_snap(filter_at(3), 4 + i);
  snaps[1]->del_pending.store(1);
  snaps[1]->use_cnt.store(1);
  snaps[2]->del_pending.store(1);
  EXPECT_EQ(destroy(snaps[0], 1), 0);  // what becomes of the others is no part of the answer
  EXPECT_EQ(find_node(4), nullptr);
  EXPECT_EQ(find_node(5), snaps[1]);
  EXPECT_EQ(find_node(6), snaps[2]);
  snaps[1]->use_cnt.store(0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DestroyDevice, ALongChainNeedsNoStack) {
  load_with_partition(sim, {.debug = 1, .max_blk_minor = 400});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 0), 0);
  SnapNode* oldest = hang_snap(filter_at(0), 1);
  for (u32 minor = 2; minor <= 256; ++minor) hang_snap(filter_at(0), minor)->del_pending.store(1);
  EXPECT_EQ(destroy(oldest, 0), 0);
  EXPECT_TRUE(filter_at(0)->snaps.empty());
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Unload, VisitsTheHighestMinorToo) {
  load_with_partition(sim, {.debug = 3});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 255), 0);
  ASSERT_EQ(start_node(sim, 255), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
  EXPECT_TRUE(sim.log().contains("snbf_block_destroy(): Stopping all minor nodes"));
  EXPECT_TRUE(sim.log().contains("snbf_block_destroy(): Destroying all minor nodes"));
  EXPECT_TRUE(sim.log().contains("snbf(100, 255) has been destroyed successfully"));
}

SIM_TEST(BlockDestroy, AnswersTheFirstRefusalAndGoesOnFromThere) {
  load_with_partition(sim);
  sim.add_device({.name = "sdb1", .bytes = 1 << 20});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sdb1", 4), 0);
  filter_at(4)->use_cnt.store(1);
  EXPECT_EQ(snbf_block_destroy(), -EBUSY);
  EXPECT_EQ(find_node(3), nullptr);
  EXPECT_FALSE(sim.disk_exists(kNode(3)));
  EXPECT_NE(find_node(4), nullptr);
  EXPECT_FALSE(sim.log().contains("Unregistering block device driver"));
  filter_at(4)->use_cnt.store(0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DeleteNode, WaitsForTheNodesDirtyRequests) {
  load_with_partition(sim, {.debug = 2});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  snbf_bmp_sel select{3, SNBF_BMP_INCR};
  ASSERT_EQ(sim.ioctl(SNBF_CLR_BMP, &select, sizeof(select)), 0);
  OpenNode node;
  ASSERT_EQ(sim.open_node(kNode(3), PLAT_MODE_READ | PLAT_MODE_WRITE, &node), 0);
  ASSERT_EQ(sim.write(kNode(3), 0, Bytes(4096)), 0);
  ASSERT_EQ(sim.close_node(&node), 0);
  ASSERT_EQ(delete_node(sim, 3), 0);
  EXPECT_FALSE(sim.log().contains("There are still some dirty requests pending"));
  ASSERT_EQ(sim.unload_driver(), 0);
}

// The kernel holds a disk's open mutex around our open and waits for it when the disk goes.
SIM_TEST_SEEDS(DeleteNode, OpenersAndDeletionDoNotWaitForOneAnother, 80) {
  load_with_partition(sim, {.debug = 0});
  sim.set_udev(true);
  for (int i = 0; i < 2; ++i) {
    sim.spawn("opener", [&] {
      for (int round = 0; round < 15; ++round) {
        OpenNode node;
        if (sim.open_node(kNode(3), PLAT_MODE_READ, &node) != 0) continue;
        Bytes data;
        EXPECT_EQ(sim.read(kNode(3), 0, 4096, &data), 0);
        EXPECT_EQ(sim.close_node(&node), 0);
      }
    });
  }
  sim.spawn("starter", [&] {
    for (int round = 0; round < 10; ++round) start_node(sim, 3);
  });
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
    int rc;
    while ((rc = delete_node(sim, 3)) == -EBUSY) sim.sleep_us(100);
    ASSERT_EQ(rc, 0);
  }
  sim.join_all();
  while (sim.module_references() != 0) sim.sleep_us(100);
  ASSERT_EQ(sim.unload_driver(), 0);
}

// Requests find a node or none, whole in either case.
SIM_TEST_SEEDS(DeleteNode, RequestsAndDeletionDoNotMeet, 40) {
  load_with_partition(sim, {.debug = 0});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  sim.spawn("writer", [&] {
    for (int round = 0; round < 10; ++round) {
      OpenNode node;
      if (sim.open_node(kNode(3), PLAT_MODE_WRITE, &node) != 0) return;
      EXPECT_EQ(sim.write(kNode(3), sim.random(100) * 8, Bytes(4096)), 0);
      EXPECT_EQ(sim.close_node(&node), 0);
    }
  });
  int rc;
  while ((rc = delete_node(sim, 3)) == -EBUSY) sim.sleep_us(50);
  EXPECT_EQ(rc, 0);
  sim.join_all();
  ASSERT_EQ(sim.unload_driver(), 0);
}

}  // namespace
}  // namespace snbf::sim
