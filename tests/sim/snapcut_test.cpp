// The power goes at any write or sync of a copy. Whatever the disks keep, a resumed snap gives
// exactly its image, or the resuming is refused: data reaches the disk before its bit, and the bit
// before the held write goes on.
#include <algorithm>
#include <cstdio>
#include <set>

#include "snap_rig.h"

namespace snbf::rig {
namespace {

enum class Scene {
  Copies,     // two snaps, both with copies
  Restarted,  // a snap that has left copies behind and is started afresh
  Resumed,    // the same, resumed from their files
  StoreFull,  // the store is full in the midst of the copies
  StoreDead,  // its device fails every write from some time on, so that nothing about it becomes
              // durable any more
};

struct Life {
  explicit Life(const SnapSetup& options) : setup(options), partition(options.bytes / 512) {}

  SnapSetup setup;
  model::Partition partition;
  std::vector<std::pair<std::string, std::shared_ptr<SnapImage>>>
      snaps;              // files and image, oldest first
  u64 armed_us = 0;       // from here on the images must outlive a cut
  std::set<u64> moments;  // when a request reached a disk, or was done
};

struct Tally {
  int cuts = 0;
  int exact = 0;
  int refused = 0;
  int wrong = 0;  // where the store was dead
};

// What the partition holds is on the disk, and nothing is on its way: so the image of a start is,
// too.
void start_quietly(SnapRig& rig, Life& life) {
  ASSERT_EQ(rig.sim.flush(rig.node()), 0);
  Snap* snap = rig.add_snap();
  ASSERT_NE(snap, nullptr);
  ASSERT_EQ(rig.start_snap(*snap), 0);
  life.snaps.emplace_back(snap->files, snap->image);
}

void write_some(SnapRig& rig, int writers, int writes, u64 spread_us = 0) {
  std::vector<sim::Task*> tasks;
  for (int i = 0; i < writers; ++i) {
    tasks.push_back(rig.sim.spawn("writer", [&rig, writes, spread_us] {
      if (spread_us != 0) rig.sim.sleep_us(rig.sim.random(spread_us));
      rig.writer(writes);
    }));
  }
  if (rig.setup.has_map)
    tasks.push_back(rig.sim.spawn("file system", [&rig, writes] { rig.map_writer(writes); }));
  for (sim::Task* task : tasks) rig.sim.join(task);
}

void restart(SnapRig& rig, Life& life) {
  ASSERT_EQ(rig.stop_snap(*rig.snaps[0]), 0);
  write_some(rig, 1, 4);
  ASSERT_EQ(rig.sim.flush(rig.node()), 0);
  ASSERT_EQ(rig.start_snap(*rig.snaps[0]), 0);
  life.snaps[0].second = rig.snaps[0]->image;
}

void note_moments(Sim& sim, Life& life) {
  for (const char* name : {"sda1", "sdb1"}) {
    for (const sim::Device::Seen& seen : sim.device(name)->history()) {
      for (const u64 moment : {seen.sent_us + 1, seen.done_us, seen.done_us + 1}) {
        if (moment > life.armed_us) life.moments.insert(moment);
      }
    }
  }
}

void live(SnapRig& rig, Life& life, Scene scene) {
  rig.begin();
  write_some(rig, 1, 3);
  if (testing::Test::HasFailure()) return;
  start_quietly(rig, life);
  write_some(rig, 1, 3);
  if (testing::Test::HasFailure()) return;
  if (scene == Scene::Restarted) {
    restart(rig, life);
  } else {
    start_quietly(rig, life);
  }
  if (scene == Scene::Resumed) {
    write_some(rig, 1, 3);
    if (testing::Test::HasFailure()) return;
    rig.stop_all_and_resume(false);
  }
  life.armed_us = rig.sim.now_us();
  if (scene == Scene::StoreFull) {
    rig.copies_may_fail = true;
    rig.sim.fs("store")->set_free_blocks(rig.sim.random(40));
  }
  if (scene == Scene::StoreDead) {
    rig.copies_may_fail = true;
    rig.sim.interrupt(
        [&rig] {
          rig.sim.device("sdb1")->fail_range(0, rig.setup.store_bytes / 512, sim::Op::Write,
                                             kIoError);
        },
        static_cast<u32>(rig.sim.random(20'000)));
  }
  if (rig.write_sectors_max > 4) {
    write_some(rig, 2, 5);
  } else {
    write_some(rig, 8, 2, 40'000);
  }
  rig.sim.sleep_us(20'000);
}

// Small writes, many to a chunk.
bool is_crowded(u64 seed) { return seed % 2 == 0; }

SnapSetup setup_of(u64 seed) {
  constexpr u32 kChunks[] = {4096, 8192, 65536};
  SnapSetup setup;
  setup.chunk_bytes = kChunks[seed % 3];
  setup.bytes = (192 << 10) + 1536;
  setup.store_bytes = 4 << 20;
  setup.store_takes_direct = seed % 4 != 3;
  setup.has_map = seed % 4 >= 2;
  setup.small_groups = seed % 8 >= 4;
  // Long between the bit and its sync: other writes of the chunk come by meanwhile.
  if (is_crowded(seed)) {
    setup.chunk_bytes = 65536;
    setup.store_latency_max_us = 4000;
  }
  return setup;
}

// Cut at `moment`, 0: not at all.
sim::Images run_until(u64 seed, u64 moment, Scene scene, Life& life) {
  Sim sim({.seed = seed});
  SnapRig rig(sim, life.setup, &life.partition);
  rig.write_sectors_max = is_crowded(seed) ? 4 : 48;
  if (moment != 0) sim.power_cut_at_us(moment);
  const sim::RunEnd end = sim.run([&] {
    live(rig, life, scene);
    note_moments(sim, life);
    if (moment != 0) return;
    sim.device("sdb1")->clear_failures();
    rig.end();
  });
  if (moment == 0) {
    EXPECT_EQ(end, sim::RunEnd::Done);
    return {};
  }
  EXPECT_EQ(end, sim::RunEnd::PowerCut) << "the second run went another way than the first";
  return sim.take_images();
}

// The agent makes the nodes again and resumes the snaps as it last saw them: valid.
void boot_again(u64 seed, const sim::Images& images, Scene scene, Life& life, Tally& tally) {
  Sim sim({.seed = seed + 7, .images = &images});
  SnapRig rig(sim, life.setup, &life.partition);
  const sim::RunEnd end = sim.run([&] {
    rig.begin_again();
    for (const auto& [files, image] : life.snaps) {
      const int minor = rig.create(files);
      ASSERT_GT(minor, 0);
      rig.snaps.push_back(std::make_shared<Snap>(Snap{minor, files}));
    }
    bool refused = false;
    for (size_t i = rig.snaps.size(); i-- > 0;) {
      // An older one reads the newer one's copies: without those it is lost too.
      if (!refused && rig.resume(rig.snaps[i]->minor) == 0) {
        rig.snaps[i]->started = true;
        rig.snaps[i]->image = life.snaps[i].second;
        rig.snaps[i]->map = MapState::Built;  // the newer ones are there
        if (scene == Scene::StoreDead && !rig.is_exact(*rig.snaps[i])) {
          ++tally.wrong;
          rig.snaps[i]->started = false;
          continue;
        }
        ++tally.exact;
        rig.check_snap(*rig.snaps[i]);
      } else {
        refused = true;
        ++tally.refused;
      }
    }
    // They are kept from here on as before.
    if (rig.snaps.back()->started && !testing::Test::HasFailure()) {
      rig.writer(3);
      for (const auto& snap : rig.snaps) {
        if (snap->started) rig.check_snap(*snap);
      }
    }
    ASSERT_EQ(rig.base.remove(), 0);
    ASSERT_EQ(sim.unload_driver(), 0);
  });
  EXPECT_EQ(end, sim::RunEnd::Done);
}

// Every moment of the first seeds, a share of those of the others.
void cut_everywhere(u64 seed, Scene scene, int share, Tally& tally) {
  Life whole(setup_of(seed));
  run_until(seed, 0, scene, whole);
  int number = 0;
  for (const u64 moment : whole.moments) {
    if (testing::Test::HasFailure()) return;
    if (number++ % share != static_cast<int>(seed) % share) continue;
    SCOPED_TRACE("power cut at " + std::to_string(moment) + " us");
    Life life(setup_of(seed));
    const sim::Images images = run_until(seed, moment, scene, life);
    if (testing::Test::HasFailure() || life.armed_us == 0) continue;
    ++tally.cuts;
    boot_again(seed, images, scene, life, tally);
  }
}

void cut_by_seeds(const char* what, Scene scene, int seeds, int share) {
  Tally tally;
  sim::for_seeds(seeds, [&](u64 seed) { cut_everywhere(seed, scene, share, tally); });
  std::printf("  %s: %d power cuts, then %d snaps exact, %d refused, %d wrong\n", what, tally.cuts,
              tally.exact, tally.refused, tally.wrong);
  EXPECT_GT(tally.cuts, 0);
  EXPECT_GT(tally.exact, 0);
}

TEST(SnapPowerCut, AtEveryWriteAndSyncOfACopy) { cut_by_seeds("copies", Scene::Copies, 6, 2); }

TEST(SnapPowerCut, AfterTheyWereResumed) { cut_by_seeds("resumed", Scene::Resumed, 4, 3); }

TEST(SnapPowerCut, AfterAFreshStartOverOldFiles) {
  cut_by_seeds("restarted", Scene::Restarted, 6, 4);
}

// Measured, not promised: a store that takes nothing any more cannot be told that its snaps are
// given up. The agent that resumes after such a crash must not trust what it knew before.
TEST(SnapPowerCut, WhileTheStoreIsDead) { cut_by_seeds("dead store", Scene::StoreDead, 4, 5); }

TEST(SnapPowerCut, WhileTheStoreRunsFull) { cut_by_seeds("full store", Scene::StoreFull, 6, 4); }

}  // namespace
}  // namespace snbf::rig
