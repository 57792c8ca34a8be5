// Snaps whose copies cannot be kept, by seed: a store that is full, fails or stalls, a partition
// that fails, memory that is short. Whole snaps break, the newest that is hit and all older ones;
// no image shows a wrong byte, no write fails because of a copy, and none waits longer than a
// stalled store is given.
#include <cstdio>

#include "snap_rig.h"

namespace snbf::rig {
namespace {

using sim::Fault;
using sim::Op;
using sim::SimBody;

SnapSetup small(Sim& sim) {
  constexpr u32 kChunks[] = {4096, 8192, 65536};
  SnapSetup setup;
  setup.chunk_bytes = kChunks[sim.random(3)];
  setup.bytes = (384 << 10) + 512 * (1 + sim.random(30));
  setup.store_bytes = 8 << 20;
  setup.store_takes_direct = sim.random(4) != 0;
  return setup;
}

class Trouble {
 public:
  Trouble(Sim& kernel, const SnapSetup& setup) : sim(kernel), rig(kernel, setup) {}

  // Two snaps, and people; `trouble` runs beside them until they are done.
  void live(int steps, const std::function<void()>& trouble) {
    rig.begin();
    if (testing::Test::HasFatalFailure()) return;
    rig.copies_may_fail = true;
    for (int i = 0; i < 2; ++i) {
      if (Snap* snap = rig.add_snap(); snap != nullptr) rig.start_snap(*snap);
    }
    std::vector<sim::Task*> people;
    for (int i = 0; i < 3; ++i) people.push_back(sim.spawn("writer", [&] { rig.writer(steps); }));
    for (int i = 0; i < 2; ++i)
      people.push_back(sim.spawn("snap reader", [&] { rig.snap_reader(steps); }));
    people.push_back(sim.spawn("admin", [&] { rig.admin(steps / 2); }));
    sim::Task* maker = sim.spawn("trouble", trouble);
    for (sim::Task* person : people) sim.join(person);
    over = true;
    sim.join(maker);
    sim.clear_faults();
    for (const char* name : {"sda1", "sdb1"}) sim.device(name)->clear_failures();
  }
  void finish() {
    if (testing::Test::HasFailure()) return;
    if (!rig.partition_may_fail) rig.check_partition();
    rig.check_snaps();
    if (testing::Test::HasFailure()) return;
    rig.partition_may_fail = false;
    // After all that a new one is as good as any.
    rig.snaps_max += 1;
    Snap* snap = rig.add_snap();
    ASSERT_NE(snap, nullptr);
    ASSERT_EQ(rig.start_snap(*snap), 0);
    rig.writer(4);
    EXPECT_EQ(rig.info(snap->minor).snap_valid, 1u);
    rig.check_snap(*snap);
    rig.end();
  }

  Sim& sim;
  SnapRig rig;
  bool over = false;
};

SIM_TEST_SEEDS(SnapFaults, TheStoreRunsFull, 80) {
  Trouble run(sim, small(sim));
  run.live(16, [&] {
    while (!run.over) {
      sim.sleep_us(sim.random(20'000));
      sim.fs("store")->set_free_blocks(sim.random(60));
    }
    sim.fs("store")->set_free_blocks(~0ull);
  });
  run.finish();
}

SIM_TEST_SEEDS(SnapFaults, FilesFailNowAndThen, 120) {
  Trouble run(sim, small(sim));
  run.live(16, [&] {
    constexpr Fault kKinds[] = {Fault::FileWrite,  Fault::FileSync,   Fault::ZeroWrite,
                                Fault::ShortWrite, Fault::FileRead,   Fault::ShortRead,
                                Fault::FileOpen,   Fault::DirectWrite};
    while (!run.over) {
      sim.fail_nth(kKinds[sim.random(std::size(kKinds))], 1 + sim.random(6));
      sim.sleep_us(2000 + sim.random(20'000));
    }
  });
  run.finish();
}

SIM_TEST_SEEDS(SnapFaults, TheStoresDeviceFails, 80) {
  Trouble run(sim, small(sim));
  run.live(14, [&] {
    while (!run.over) {
      sim.sleep_us(sim.random(20'000));
      const Op ops[] = {Op::Write, Op::Read, Op::Flush};
      const u64 sectors = sim.device("sdb1")->bytes() / 512;
      sim.device("sdb1")->fail_range(sim.random(sectors), sim.random(sectors / 8),
                                     ops[sim.random(3)], kIoError);
      sim.sleep_us(sim.random(10'000));
      sim.device("sdb1")->clear_failures();
    }
  });
  run.finish();
}

SIM_TEST_SEEDS(SnapFaults, ThePartitionFails, 80) {
  Trouble run(sim, small(sim));
  run.rig.partition_may_fail = true;
  run.live(14, [&] {
    while (!run.over) {
      sim.sleep_us(sim.random(10'000));
      const u64 first = sim.random(run.rig.sectors());
      sim.device("sda1")->fail_range(first, 64, sim.random(2) == 0 ? Op::Read : Op::Write,
                                     kIoError);
      sim.sleep_us(sim.random(10'000));
      sim.device("sda1")->clear_failures();
    }
  });
  run.finish();
}

SIM_TEST_SEEDS(SnapFaults, MemoryIsShort, 100) {
  Trouble run(sim, small(sim));
  run.rig.memory_may_fail = true;
  run.live(14, [&] {
    constexpr Fault kKinds[] = {Fault::Heap, Fault::Virt, Fault::Page, Fault::BioAlloc,
                                Fault::ThreadStart};
    while (!run.over) {
      if (sim.random(4) == 0) sim.set_memory_pressure(true);
      sim.fail_nth(kKinds[sim.random(std::size(kKinds))], 1 + sim.random(12));
      sim.sleep_us(2000 + sim.random(20'000));
      sim.set_memory_pressure(false);
    }
  });
  run.finish();
}

// Memory that the commands and kcowd ask for must be freed by a write to the very node.
SIM_TEST_SEEDS(SnapFaults, ReclaimThroughTheNode, 40) {
  SnapSetup setup = small(sim);
  setup.fs_blocks = 0;
  SnapRig rig(sim, setup);
  rig.begin();
  if (testing::Test::HasFatalFailure()) return;
  // What reclaim writes is none of the model's: the last blocks are its own.
  const u64 reclaimed = rig.sectors() / 8 * 8 - 8;
  sim.set_reclaim(rig.node(), reclaimed, 20);
  for (int i = 0; i < 2; ++i) {
    sim.spawn("writer", [&] {
      for (int n = 0; n < 20; ++n) {
        const u64 count = 1 + sim.random(40);
        rig.write(sim.random(reclaimed - count), count);
      }
    });
  }
  sim.spawn("admin", [&] {
    for (int round = 0; round < 3; ++round) {
      Snap* snap = rig.add_snap();
      ASSERT_NE(snap, nullptr);
      const int rc = rig.start_snap(*snap);
      EXPECT_TRUE(rc == 0 || rc == kAgain) << rc;
      if (rc == 0) {
        rig.read_snap(*snap, 0, 64);
        rig.read_snap(*snap, sim.random(reclaimed - 64), 64);
      }
      if (round == 1) {
        EXPECT_EQ(rig.delete_snap(*rig.snaps[0]), 0);
      }
    }
  });
  sim.join_all();
  sim.clear_reclaim();
  ASSERT_EQ(rig.base.remove(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

void stall(Sim& sim, u64 us) {
  sim.device("sdb1")->hold(true);
  sim.sleep_us(us);
  sim.device("sdb1")->hold(false);
  sim.device("sdb1")->release_all();
}

// A store that does not answer for longer than it is given. Each file operation has its ten
// seconds, so one stall at a time: what comes before it must be over.
SIM_TEST_SEEDS(SnapFaults, TheStoreStalls, 60) {
  Trouble run(sim, small(sim));
  run.live(12, [&] {
    sim.sleep_us(sim.random(20'000));
    stall(sim, 12'000'000 + sim.random(15'000'000));
    sim.sleep_us(sim.random(50'000));
    stall(sim, 12'000'000 + sim.random(15'000'000));
  });
  run.finish();
}

// One that is only slow breaks nothing.
SIM_TEST_SEEDS(SnapFaults, TheStoreIsSlow, 20) {
  Trouble run(sim, small(sim));
  run.live(12, [&] {
    sim.sleep_us(sim.random(20'000));
    stall(sim, sim.random(5'000'000));
    stall(sim, sim.random(4'500'000));
  });
  run.rig.copies_may_fail = false;
  run.finish();
}

}  // namespace
}  // namespace snbf::rig
