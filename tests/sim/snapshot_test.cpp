// Snaps under any load, by seed: every write that was acknowledged reaches the partition, and every
// image is what the partition was at its start, for ever.
#include <cstdio>

#include "snap_rig.h"

namespace snbf::rig {
namespace {

using sim::Fault;
using sim::SimBody;

constexpr u32 kChunks[] = {4096, 8192, 65536, 1 << 20};

// Not a whole number of chunks: the last one is cut off by the partition's end.
SnapSetup setup_for(Sim& sim, u32 chunk_bytes) {
  SnapSetup setup;
  setup.chunk_bytes = chunk_bytes;
  setup.bytes = chunk_bytes <= 65536 ? (512 << 10) + 512 * (1 + sim.random(100))
                                     : 2 * u64{chunk_bytes} + 5 * 4096;
  setup.store_bytes = 8 * setup.bytes + (4 << 20);
  if (sim.random(4) == 0) setup.queue_depth = 1 + static_cast<u32>(sim.random(8));
  setup.bio_based = sim.random(4) == 0;
  setup.store_takes_direct = sim.random(4) != 0;
  // Slower than all that a start does: what was passed on in place is then still on its way.
  if (sim.random(3) == 0) setup.latency_max_us = 30'000;
  return setup;
}

void crowd(SnapRig& rig, int steps) {
  for (int i = 0; i < 3; ++i) rig.sim.spawn("writer", [&rig, steps] { rig.writer(steps); });
  for (int i = 0; i < 2; ++i)
    rig.sim.spawn("snap reader", [&rig, steps] { rig.snap_reader(steps); });
  rig.sim.spawn("origin reader", [&rig, steps] { rig.origin_reader(steps / 2); });
  rig.sim.spawn("admin", [&rig, steps] { rig.admin(steps / 2); });
  if (rig.setup.has_map) rig.sim.spawn("file system", [&rig, steps] { rig.map_writer(steps); });
  if (rig.setup.fs_blocks != 0) rig.sim.spawn("files", [&rig, steps] { rig.file_writer(steps); });
  rig.sim.join_all();
}

void live(SnapRig& rig, int steps) {
  rig.begin();
  if (testing::Test::HasFatalFailure()) return;
  // Somebody who has the node open makes a start wait until nobody else asks anything of it.
  sim::OpenNode opening;
  const bool held_open = rig.sim.random(3) == 0;
  if (held_open) {
    ASSERT_EQ(rig.sim.open_node(rig.node(), PLAT_MODE_READ, &opening), 0);
  }
  crowd(rig, steps);
  if (held_open) {
    EXPECT_EQ(rig.sim.close_node(&opening), 0);
  }
  if (testing::Test::HasFailure()) return;
  rig.check_partition();
  rig.check_snaps();
  if (testing::Test::HasFailure()) return;
  rig.end(rig.sim.random(2) == 0);
}

SIM_TEST_SEEDS(Snapshot, ImagesNeverChangeUnderAnyLoad, 200) {
  SnapRig rig(sim, setup_for(sim, kChunks[sim.random(std::size(kChunks))]));
  live(rig, 24);
}

SIM_TEST_SEEDS(Snapshot, ImagesOfAMountedFileSystem, 150) {
  SnapSetup setup = setup_for(sim, kChunks[sim.random(3)]);
  setup.fs_blocks = 64;
  SnapRig rig(sim, setup);
  live(rig, 20);
}

SnapSetup with_map(Sim& sim, SnapSetup setup) {
  setup.has_map = true;
  setup.small_groups = sim.random(2) == 0;
  return setup;
}

SIM_TEST_SEEDS(Snapshot, ImagesKeepWhatTheirFileSystemUsed, 100) {
  SnapRig rig(sim, with_map(sim, setup_for(sim, kChunks[sim.random(std::size(kChunks))])));
  live(rig, 24);
}

SIM_TEST_SEEDS(Snapshot, CowFilesOnAnotherNode, 100) {
  SnapSetup setup = setup_for(sim, kChunks[sim.random(3)]);
  setup.store_on_node = true;
  SnapRig rig(sim, setup);
  live(rig, 20);
}

void live_through_resumes(SnapRig& rig) {
  rig.begin();
  if (testing::Test::HasFatalFailure()) return;
  for (int round = 0; round < 3 && !testing::Test::HasFailure(); ++round) {
    crowd(rig, 12);
    if (testing::Test::HasFailure()) return;
    rig.stop_all_and_resume(rig.sim.random(2) == 0);
  }
  if (testing::Test::HasFailure()) return;
  rig.writer(6);
  rig.check_snaps();
  if (testing::Test::HasFailure()) return;
  rig.end();
}

SIM_TEST_SEEDS(Snapshot, ResumedSnapsGoOnWithTheirImages, 100) {
  SnapRig rig(sim, setup_for(sim, kChunks[sim.random(3)]));
  live_through_resumes(rig);
}

SIM_TEST_SEEDS(Snapshot, ResumedSnapsGoOnWithTheirMaps, 100) {
  SnapRig rig(sim, with_map(sim, setup_for(sim, kChunks[sim.random(3)])));
  live_through_resumes(rig);
}

// Few chunks, everybody at them at once, and again with the next snap: a read that overlaps
// several, some copied and some not, waits for one while another is overwritten.
SIM_TEST_SEEDS(Snapshot, ReadsAndWritesRaceForFewChunks, 100) {
  SnapSetup setup;
  setup.bytes = 32 << 10;
  setup.latency_max_us = sim.random(4) == 0 ? 400 : 60'000;
  setup.store_latency_max_us = 40;
  SnapRig rig(sim, setup);
  rig.begin();
  if (testing::Test::HasFatalFailure()) return;
  for (int round = 0; round < 10 && !testing::Test::HasFailure(); ++round) {
    if (rig.snaps.size() == 3) {
      ASSERT_EQ(rig.delete_snap(*rig.snaps[0]), 0);
    }
    Snap* fresh = rig.add_snap();
    ASSERT_NE(fresh, nullptr);
    ASSERT_EQ(rig.start_snap(*fresh), 0);
    for (int i = 0; i < 3; ++i) {
      sim.spawn("writer", [&] {
        for (int n = 0; n < 3; ++n) {
          sim.sleep_us(sim.random(3000));
          rig.write(sim.random(62), 1 + sim.random(2));
        }
      });
      sim.spawn("snap reader", [&] {
        for (int n = 0; n < 3; ++n) {
          const u32 count = static_cast<u32>(1 + sim.random(sim.random(2) == 0 ? 8 : 63));
          rig.read_snap(*rig.snaps[sim.random(rig.snaps.size())], sim.random(64 - count), count);
        }
      });
    }
    sim.join_all();
  }
  if (testing::Test::HasFailure()) return;
  rig.check_snaps();
  rig.end();
}

// The first snap of a node starts among writes that are passed on in place, one upon the other.
SIM_TEST_SEEDS(Snapshot, TheFirstStartsAmongWritesPassedOnInPlace, 16) {
  SnapSetup setup;
  setup.bytes = 32 << 10;
  setup.latency_max_us = 20 + static_cast<u32>(sim.random(40));
  SnapRig rig(sim, setup);
  rig.begin();
  if (testing::Test::HasFatalFailure()) return;
  Snap* snap = nullptr;
  bool over = false;
  for (int i = 0; i < 5; ++i) {
    sim.spawn("writer", [&] {
      while (!over && !testing::Test::HasFailure()) rig.write(sim.random(64), 1);
    });
  }
  sim.sleep_us(sim.random(300));
  snap = rig.add_snap();
  ASSERT_NE(snap, nullptr);
  EXPECT_EQ(rig.start_snap(*snap), 0);
  rig.read_snap(*snap, 0, 64);
  over = true;
  sim.join_all();
  rig.check_snap(*snap);
  rig.end();
}

// A chunk is larger than what is copied at once.
SIM_TEST_SEEDS(Snapshot, ChunksOfEightMiB, 3) {
  SnapSetup setup;
  setup.chunk_bytes = 8 << 20;
  setup.bytes = (20 << 20) + 1536;
  setup.store_bytes = 100 << 20;
  SnapRig rig(sim, setup);
  rig.write_sectors_max = 20'000;
  rig.snaps_max = 2;
  live(rig, 5);
}

// As many as may hang on one node, each with an image of its own.
SIM_TEST_SEEDS(Snapshot, TwoHundredFiftySixImages, 1) {
  SnapSetup setup;
  setup.bytes = 128 << 10;
  setup.minor_max = 300;
  SnapRig rig(sim, setup);
  rig.begin();
  if (testing::Test::HasFatalFailure()) return;
  rig.snaps_max = 257;
  for (int i = 0; i < 256; ++i) {
    Snap* snap = rig.add_snap();
    ASSERT_NE(snap, nullptr);
    ASSERT_EQ(rig.start_snap(*snap), 0);
    rig.write(8 * sim.random(32), 8);
  }
  EXPECT_EQ(rig.create("/store/more"), -28);
  sim.spawn("writer", [&] { rig.writer(30); });
  sim.spawn("snap reader", [&] { rig.snap_reader(30); });
  sim.join_all();
  rig.check_snaps();
  if (testing::Test::HasFailure()) return;
  rig.end();
}

}  // namespace
}  // namespace snbf::rig
