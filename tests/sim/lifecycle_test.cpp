// Nodes come and go while everybody looks at them. A run that cannot go on ends with "deadlock" and says who
// waits for whom.
#include "rig.h"
#include "snap_rig.h"

namespace snbf::rig {
namespace {

using sim::SimBody;

const char* const kProcFiles[] = {"minor",    "uuid",          "name",          "started",  "use_cnt",
                                  "dev_size", "incr_bmp_size", "incr_bmp_dirty", "snaps", "cowqueue_len"};

class Crowd {
 public:
  explicit Crowd(Sim& kernel) : rig(kernel), sim(kernel) {}

  void begin() {
    rig.make_devices();
    rig.load();
  }
  void end() { ASSERT_EQ(sim.unload_driver(), 0); }

  // What udev and monitoring do on a real machine, until the node's owner is done.
  void openers(int count) {
    for (int i = 0; i < count; ++i) {
      sim.spawn("opener", [this] {
        while (!over) {
          sim::OpenNode node;
          if (sim.open_node(rig.node(), PLAT_MODE_READ, &node) == 0) {
            Bytes data;
            sim.read(rig.node(), 0, 4096, &data);
            EXPECT_EQ(sim.close_node(&node), 0);
          }
          sim.sleep_us(sim.random(200));
        }
      });
    }
  }
  void proc_readers(int count) {
    for (int i = 0; i < count; ++i) {
      sim.spawn("reader", [this] {
        while (!over) {
          for (const char* file : kProcFiles) sim.proc(std::string("/proc/snbf/snbf0/") + file);
          sim.sleep_us(sim.random(200));
        }
      });
    }
  }
  // Busy nodes are no failure: somebody has it open.
  void rounds(int count) {
    for (int round = 0; round < count; ++round) {
      ASSERT_EQ(rig.add(), 0);
      ASSERT_EQ(rig.start(), 0);
      EXPECT_EQ(sim.write(rig.node(), 8 * round, Bytes(4096, 1)), 0);
      sim.sleep_us(sim.random(500));
      int rc;
      while ((rc = rig.remove()) == -16) sim.sleep_us(100);
      ASSERT_EQ(rc, 0);
    }
    over = true;
  }

  Rig rig;
  Sim& sim;
  bool over = false;
};

SIM_TEST_SEEDS(LifeCycle, OpenersDuringEveryStepOfALife, 40) {
  Crowd crowd(sim);
  crowd.begin();
  sim.set_udev(true);
  crowd.openers(2);
  sim.spawn("owner", [&] { crowd.rounds(4); });
  sim.join_all();
  crowd.end();
}

SIM_TEST_SEEDS(LifeCycle, ProcReadersDuringEveryStepOfALife, 40) {
  Crowd crowd(sim);
  crowd.begin();
  crowd.proc_readers(3);
  sim.spawn("owner", [&] { crowd.rounds(4); });
  sim.join_all();
  crowd.end();
}

// Allocations of the commands may wait for a write through the node, and that write needs the table.
SIM_TEST_SEEDS(LifeCycle, ReclaimThroughTheNodeDuringCommands, 40) {
  Crowd crowd(sim);
  crowd.begin();
  sim.add_device({.name = "sdc1", .bytes = 1 << 20});
  ASSERT_EQ(crowd.rig.add(), 0);
  ASSERT_EQ(crowd.rig.start(), 0);
  sim.set_reclaim(crowd.rig.node(), 64, 30);
  sim.spawn("other", [&] {
    for (int round = 0; round < 4; ++round) {
      ASSERT_EQ(crowd.rig.add("/dev/sdc1", 1), 1);
      ASSERT_EQ(crowd.rig.start(1), 0);
      ASSERT_EQ(crowd.rig.remove(1), 0);
    }
  });
  sim.spawn("agent", [&] {
    for (int round = 0; round < 8; ++round) {
      Extents map;
      ASSERT_EQ(crowd.rig.get(kTypes[round % 2], &map, SNBF_GET_AND_CLR_BMP), 0);
      ASSERT_EQ(crowd.rig.merge(kTypes[round % 2], map), 0);
    }
  });
  sim.join_all();
  sim.clear_reclaim();
  ASSERT_EQ(crowd.rig.remove(), 0);
  crowd.end();
}

// The bitmaps of one node on a file system that is mounted on another one.
SIM_TEST_SEEDS(LifeCycle, BitmapsOfOneNodeOnAnother, 30) {
  Rig rig(sim);
  rig.make_devices();
  rig.load();
  sim.add_device({.name = "sdc1", .bytes = 4 << 20});
  ASSERT_EQ(rig.add("/dev/sdc1"), 0);
  ASSERT_EQ(rig.start(), 0);
  sim::FileSystem* upper = sim.add_fs("upper", rig.node(0));
  ASSERT_EQ(sim.mount(upper, "/upper"), 0);
  ASSERT_EQ(rig.add("/dev/sda1", 1, "/upper"), 1);
  ASSERT_EQ(rig.start(1), 0);
  for (int writer = 0; writer < 2; ++writer) {
    sim.spawn("writer", [&] {
      for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(sim.write(rig.node(1), 8 * sim.random(kExtents), Bytes(4096, 7)), 0);
      }
    });
  }
  sim.spawn("agent", [&] {
    for (int i = 0; i < 6; ++i) {
      EXPECT_EQ(rig.clear(kTypes[i % 2], 1), 0);
      EXPECT_EQ(rig.dirty(kTypes[i % 2], 1) & ~1, 0);
    }
  });
  sim.join_all();
  ASSERT_EQ(rig.remove(1), 0);
  ASSERT_EQ(sim.unmount(upper), 0);
  ASSERT_EQ(rig.remove(0), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

// A file system on the node that holds its own bitmaps: saves are refused, tracking goes on, and nothing hangs.
SIM_TEST_SEEDS(LifeCycle, BitmapsOnTheTrackedPartitionAreRefused, 10) {
  Rig rig(sim);
  rig.make_devices();
  rig.load();
  ASSERT_EQ(rig.add("/dev/sda1", -1, "/own"), 0);
  ASSERT_EQ(rig.start(), 0);
  sim::FileSystem* own = sim.add_fs("own", rig.node());
  ASSERT_EQ(sim.mount(own, "/own"), 0);
  EXPECT_EQ(rig.clear(SNBF_BMP_INCR), 0);
  EXPECT_EQ(rig.dirty(SNBF_BMP_INCR), 1);
  EXPECT_EQ(rig.save(SNBF_BMP_INCR), -22);
  EXPECT_TRUE(sim.log().contains("Can't save bitmap to /own/snbf0.incr. The file must be moved to a different partition."));
  ASSERT_EQ(sim.unmount(own), 0);
  ASSERT_EQ(rig.remove(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

// kdirtyd hangs in a file of one node; another one's requests queue up behind it, and that node is deleted. It goes
// after ten seconds, and what is left in the queue does it no harm.
SIM_TEST_SEEDS(LifeCycle, ADeletionDoesNotWaitForeverForTheFlagWriter, 10) {
  Rig rig(sim);
  rig.make_devices();
  rig.load();
  sim.add_device({.name = "sdc1", .bytes = kDiskBytes});
  sim::Device* other = sim.add_device({.name = "sdd1", .bytes = 4 << 20});
  ASSERT_EQ(sim.mount(sim.add_fs("other", other->number()), "/other"), 0);
  ASSERT_EQ(rig.add(), 0);
  ASSERT_EQ(rig.add("/dev/sdc1", 1, "/other"), 1);
  for (int minor = 0; minor < 2; ++minor) {
    ASSERT_EQ(rig.start(minor), 0);
    for (const u32 type : kTypes) ASSERT_EQ(rig.clear(type, minor), 0);
  }
  ASSERT_EQ(sim.fs("store")->freeze_by_hand(), 0);
  EXPECT_EQ(sim.write(rig.node(0), 0, Bytes(4096, 1)), 0);
  EXPECT_EQ(sim.write(rig.node(1), 0, Bytes(4096, 1)), 0);
  const u64 before = sim.now_us();
  EXPECT_EQ(rig.remove(1), 0);
  EXPECT_GE(sim.now_us() - before, 10'000'000u);
  EXPECT_EQ(sim.log().count("There are still some dirty requests pending for snbf(100, 1). Continuing anyway..."), 1);
  ASSERT_EQ(sim.fs("store")->thaw_by_hand(), 0);
  ASSERT_EQ(rig.remove(0), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

// rmmod with nodes still there, while udev and others look.
SIM_TEST_SEEDS(LifeCycle, UnloadTakesEveryNodeWithIt, 40) {
  Crowd crowd(sim);
  crowd.begin();
  sim.add_device({.name = "sdc1", .bytes = 1 << 20});
  ASSERT_EQ(crowd.rig.add(), 0);
  ASSERT_EQ(crowd.rig.add("/dev/sdc1"), 1);
  ASSERT_EQ(crowd.rig.start(), 0);
  EXPECT_EQ(sim.write(crowd.rig.node(), 0, Bytes(4096, 1)), 0);
  crowd.openers(1);
  crowd.proc_readers(1);
  int rc;
  while ((rc = sim.unload_driver()) != 0) sim.sleep_us(50);
  crowd.over = true;
  sim.join_all();
  EXPECT_FALSE(sim.driver_loaded());
}

// Two commands for one minor at once: one wins, and nothing is half done.
SIM_TEST_SEEDS(LifeCycle, CommandsForOneMinorRace, 60) {
  Rig rig(sim);
  rig.make_devices();
  rig.load();
  sim.add_device({.name = "sdc1", .bytes = 1 << 20});
  for (int task = 0; task < 3; ++task) {
    sim.spawn("agent", [&, task] {
      for (int i = 0; i < 6; ++i) {
        switch (sim.random(4)) {
          case 0:
            rig.add(task == 0 ? "/dev/sda1" : "/dev/sdc1", 0);
            break;
          case 1:
            rig.start();
            break;
          case 2:
            rig.stop();
            break;
          default:
            rig.remove();
        }
      }
    });
  }
  sim.join_all();
  ASSERT_EQ(sim.unload_driver(), 0);
}

// A stop of the node stops its snaps on the way, while others stop and start the same snaps.
SIM_TEST_SEEDS(LifeCycle, ANodeStopsWhileItsSnapsStopAndStart, 20) {
  SnapSetup setup;
  setup.bytes = 128 << 10;
  SnapRig rig(sim, setup);
  rig.begin();
  constexpr u32 kSnaps = 2;
  for (int i = 1; i <= static_cast<int>(kSnaps); ++i) {
    ASSERT_EQ(rig.create("/store/s" + std::to_string(i), i), i);
  }
  const auto commands = [&](unsigned int command, u32 first, u32 count) {
    for (int i = 0; i < 12; ++i) {
      snbf_minor_cmd record = {first + static_cast<u32>(sim.random(count))};
      sim.ioctl(command, &record, sizeof(record));  // whatever it answers: that it does is what counts
    }
  };
  sim.spawn("stops the node", [&] { commands(SNBF_STOP_NODE, 0, 1); });
  sim.spawn("stops snaps", [&] { commands(SNBF_STOP_NODE, 1, kSnaps); });
  for (int i = 0; i < 2; ++i) sim.spawn("starts snaps", [&] { commands(SNBF_START_NODE, 1, kSnaps); });
  sim.join_all();
  rig.end();
}

// A disk becomes visible through a helper of the kernel, which may allocate with I/O through the node.
SIM_TEST_SEEDS(LifeCycle, ReclaimThroughTheNodeWhileSnapsAreMade, 20) {
  SnapSetup setup;
  setup.bytes = 128 << 10;
  SnapRig rig(sim, setup);
  rig.begin();
  sim.set_reclaim(rig.node(), 64, 50);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(rig.create("/store/s" + std::to_string(i), 1 + i), 1 + i);
    ASSERT_EQ(rig.base.start(1 + i), 0);
  }
  sim.clear_reclaim();
  rig.write(64, 8);  // where the model knows nothing of what was reclaimed
  rig.end();
}

}  // namespace
}  // namespace snbf::rig
