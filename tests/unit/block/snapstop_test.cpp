// Snaps are stopped from the oldest to the newest; a stop out of turn is postponed.
#include "snap_bench.h"

namespace snbf::sim {
namespace {

SIM_TEST(StopSnap, ClosesItsFilesAndFreesItsBitmaps) {
  SnapBench bench(sim);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  sim.log().clear();
  ASSERT_EQ(stop_node(sim, 7), 0);
  EXPECT_EQ(sim.log().count("snbf_ioctl_stop_node(): Stopping snbf(100, 7)"), 1);
  EXPECT_EQ(sim.log().count("snbf_block_stop_device(): snbf(100, 7) has been stopped successfully"),
            1);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  EXPECT_EQ(info_of(sim, 7).snap_valid, 1u);
  EXPECT_EQ(bench.snap(7)->cow_data_file, nullptr);
  EXPECT_EQ(bench.snap(7)->cow_bmp_file, nullptr);
  EXPECT_EQ(bench.snap(7)->cow_bmp.pages, nullptr);
  EXPECT_EQ(bench.read(7, 1), -EIO);
  sim.log().clear();
  EXPECT_EQ(stop_node(sim, 7), 0);
  EXPECT_TRUE(sim.log().contains("snbf_block_stop_device(): Stopping snbf(100, 7)"));
  EXPECT_FALSE(sim.log().contains("has been stopped"));
}

SIM_TEST(StopSnap, OutOfTurnItIsPostponedAndCarriedOutByTheCascade) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  bench.add_started(8);
  sim.log().clear();
  EXPECT_EQ(stop_node(sim, 8), 0);
  EXPECT_EQ(
      sim.log().count(
          "snbf_block_stop_device(): Postponing stop of snbf(100, 8), since there are other snaps "
          "depending on this one."),
      1);
  EXPECT_FALSE(sim.log().contains("has been stopped successfully"));
  EXPECT_EQ(info_of(sim, 8).started, 1u);
  EXPECT_EQ(info_of(sim, 8).stop_pending, 1u);
  EXPECT_EQ(bench.proc(8, "stop_pending"), "1\n");
  EXPECT_EQ(bench.read(8, 1), -EIO);
  EXPECT_EQ(bench.errors("snbf_make_request(): I/O request for snbf(100, 8), which is in "
                         "STOP_PENDING state or INVALID."),
            1);
  // It still keeps the older one's image.
  ASSERT_EQ(bench.write(1, 0x99), 0);
  EXPECT_TRUE(sim.log().contains("snap_minor=8"));
  EXPECT_EQ(bench.read(7, 1), 0x11);
  EXPECT_EQ(start_node(sim, 8), -EALREADY);

  sim.log().clear();
  EXPECT_EQ(stop_node(sim, 7), 0);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  EXPECT_EQ(info_of(sim, 8).started, 0u);
  EXPECT_EQ(info_of(sim, 8).stop_pending, 0u);
  EXPECT_EQ(sim.log().count("snbf_block_stop_device(): snbf(100, 7) has been stopped successfully"),
            1);
  EXPECT_EQ(sim.log().count("snbf_block_stop_device(): snbf(100, 8) has been stopped successfully"),
            1);
}

SIM_TEST(StopSnap, TheCascadeEndsAtOneThatNobodyStopped) {
  SnapBench bench(sim);
  for (const u32 minor : {7u, 8u, 9u, 10u}) bench.add_started(minor);
  ASSERT_EQ(stop_node(sim, 8), 0);
  ASSERT_EQ(stop_node(sim, 10), 0);
  ASSERT_EQ(stop_node(sim, 7), 0);
  EXPECT_EQ(info_of(sim, 8).started, 0u);
  EXPECT_EQ(info_of(sim, 9).started, 1u);
  EXPECT_EQ(info_of(sim, 10).started, 1u);
  ASSERT_EQ(stop_node(sim, 9), 0);
  EXPECT_EQ(info_of(sim, 10).started, 0u);
}

// Between them stands one that is stopped: it needs nobody, and hides nobody.
SIM_TEST(StopSnap, IsPostponedForAnyOlderOneNotTheLastAlone) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  ASSERT_EQ(bench.add(8), 0);
  bench.add_started(9);
  ASSERT_EQ(bench.write(1, 0x99), 0);
  ASSERT_EQ(stop_node(sim, 9), 0);
  EXPECT_EQ(info_of(sim, 9).started, 1u);
  EXPECT_EQ(info_of(sim, 9).stop_pending, 1u);
  EXPECT_EQ(bench.read(7, 1), 0x11);
  ASSERT_EQ(stop_node(sim, 7), 0);
  EXPECT_EQ(info_of(sim, 9).started, 0u);
}

SIM_TEST(StopSnap, AnOpenOneIsRefused) {
  SnapBench bench(sim);
  bench.add_started(7);
  OpenNode opening;
  ASSERT_EQ(sim.open_node(kNode(7), PLAT_MODE_READ, &opening), 0);
  EXPECT_EQ(stop_node(sim, 7), -EBUSY);
  EXPECT_EQ(bench.errors("snbf_block_stop_device(): snbf(100, 7) is still being used."), 1);
  EXPECT_EQ(info_of(sim, 7).started, 1u);
  ASSERT_EQ(sim.close_node(&opening), 0);
}

SIM_TEST(StopFilter, StopsItsSnapsOldestFirstAndThenKcowd) {
  SnapBench bench(sim);
  for (const u32 minor : {9u, 7u, 8u}) bench.add_started(minor);
  OpenNode opening;
  ASSERT_EQ(sim.open_node(kNode(9), PLAT_MODE_READ, &opening), 0);
  EXPECT_EQ(stop_node(sim, kOrigin), -EBUSY);
  for (const u32 minor : {kOrigin, 9u, 7u, 8u}) EXPECT_EQ(info_of(sim, minor).started, 1u) << minor;
  ASSERT_EQ(sim.close_node(&opening), 0);

  sim.log().clear();
  ASSERT_EQ(stop_node(sim, kOrigin), 0);
  std::vector<std::string> order;
  for (const LogLine& line : sim.log().lines()) {
    const std::size_t stopped = line.text.find("snbf_block_stop_device(): snbf");
    if (stopped != std::string::npos) order.push_back(line.text.substr(stopped));
    if (line.text.find("Stopping COW thread") != std::string::npos) order.push_back("kcowd");
  }
  ASSERT_EQ(order.size(), 5u);
  EXPECT_EQ(order[0], "snbf_block_stop_device(): snbf(100, 9) has been stopped successfully");
  EXPECT_EQ(order[1], "snbf_block_stop_device(): snbf(100, 7) has been stopped successfully");
  EXPECT_EQ(order[2], "snbf_block_stop_device(): snbf(100, 8) has been stopped successfully");
  EXPECT_EQ(order[3], "kcowd");
  EXPECT_EQ(order[4], "snbf_block_stop_device(): snbf(100, 3) has been stopped successfully");
  EXPECT_EQ(sim.log().count("snbf_cowthread_shutdown(): Stopping COW thread kcowd (pid="), 1);
  // And all over again.
  ASSERT_EQ(start_node(sim, 9), 0);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  EXPECT_EQ(bench.read(9, 1), 0);
}

// ---- Deletion

SIM_TEST(DeleteSnap, TakesItsFilesAndItsNamesWithIt) {
  SnapBench bench(sim);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  ASSERT_EQ(delete_node(sim, 7), 0);
  EXPECT_EQ(sim.log().count("snbf_ioctl_del_node(): Removing snbf(100, 7)"), 1);
  EXPECT_EQ(
      sim.log().count("snbf_block_destroy_device(): snbf(100, 7) has been destroyed successfully"),
      1);
  EXPECT_FALSE(sim.exists(bench.data_file(7)));
  EXPECT_FALSE(sim.exists(bench.bmp_file(7)));
  EXPECT_FALSE(sim.exists("/dev/snbf/snbf7"));
  EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf7"));
  EXPECT_FALSE(sim.disk_exists(kNode(7)));
  EXPECT_EQ(info_of(sim, kOrigin).snap_cnt, 0u);
  EXPECT_EQ(bench.write(1, 0x22), 0);
}

SIM_TEST(DeleteSnap, AnOpenOneFailsAtItsStop) {
  SnapBench bench(sim);
  bench.add_started(7);
  OpenNode opening;
  ASSERT_EQ(sim.open_node(kNode(7), PLAT_MODE_READ, &opening), 0);
  EXPECT_EQ(delete_node(sim, 7), -EBUSY);
  EXPECT_EQ(bench.errors("snbf_block_stop_device(): snbf(100, 7) is still being used."), 1);
  EXPECT_TRUE(sim.exists(bench.data_file(7)));
  ASSERT_EQ(sim.close_node(&opening), 0);
}

SIM_TEST(DeleteSnap, OutOfTurnItIsPostponedUntilTheOlderOneGoes) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  bench.add_started(8);
  bench.add_started(9);
  EXPECT_EQ(delete_node(sim, 8), 0);
  EXPECT_EQ(sim.log().count("snbf_block_destroy_device(): STOP is pending for snbf(100, 8). "
                            "Postponing delete as well."),
            1);
  EXPECT_EQ(bench.proc(8, "del_pending"), "1\n");
  EXPECT_TRUE(sim.exists(bench.data_file(8)));
  ASSERT_EQ(bench.write(1, 0x99), 0);
  EXPECT_EQ(bench.read(7, 1), 0x11);
  ASSERT_EQ(delete_node(sim, 7), 0);
  EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf7"));
  EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf8"));
  EXPECT_FALSE(sim.exists(bench.data_file(8)));
  EXPECT_EQ(info_of(sim, kOrigin).snap_cnt, 1u);
  EXPECT_EQ(bench.read(9, 1), 0x11);
}

SIM_TEST(DeleteFilter, TakesItsSnapsTheirFilesAndKcowdWithIt) {
  SnapBench bench(sim);
  bench.add_started(7);
  ASSERT_EQ(bench.add(8), 0);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  ASSERT_EQ(delete_node(sim, kOrigin), 0);
  EXPECT_EQ(sim.log().count("snbf_block_destroy_device(): Deleting associated snap snbf(100, 7)"),
            1);
  EXPECT_EQ(sim.log().count("snbf_block_destroy_device(): Deleting associated snap snbf(100, 8)"),
            1);
  for (const u32 minor : {kOrigin, 7u, 8u}) {
    EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf" + std::to_string(minor)));
    EXPECT_FALSE(sim.exists("/dev/snbf/snbf" + std::to_string(minor)));
  }
  EXPECT_FALSE(sim.exists(bench.data_file(7)));
  EXPECT_FALSE(sim.exists(bench.bmp_file(7)));
  ASSERT_EQ(sim.unload_driver(), 0);
}

// Each covers the one before it and goes to its end, so that each is in the way of all that follow.
void writes_keep_their_order(Sim& sim, bool with_a_newer_one) {
  constexpr u64 kEnd = 1000;
  SnapBench bench(sim, {.debug = 0});
  bench.add_started(7);
  if (with_a_newer_one) {
    bench.add_started(8);
    EXPECT_EQ(delete_node(sim, 8), 0);
    ASSERT_NE(find_node(8), nullptr) << "it goes with the older one";
  }
  bench.disk->clear_history();
  bool over = false;
  Task* agent = sim.spawn("agent", [&] {
    sim.sleep_us(1000 + sim.random(30'000));
    EXPECT_EQ(stop_node(sim, 7), 0);
    EXPECT_EQ(delete_node(sim, 7), 0);
    over = true;
  });
  std::vector<Io> writes;
  for (u64 left = 20; (!over || left-- > 0) && writes.size() < kEnd - 100;) {
    const u64 sectors = writes.size() + 1;
    writes.push_back(
        sim.submit(kNode(kOrigin),
                   {.op = Op::Write, .sector = kEnd - sectors, .data = Bytes(sectors * 512, 1)}));
    sim.sleep_us(sim.random(300));
  }
  for (const Io& io : writes) EXPECT_EQ(io.wait(), 0);
  sim.join(agent);
  u64 sent = 0;
  for (const Device::Seen& seen : bench.disk->history()) {
    if (seen.op != Op::Write) continue;
    ASSERT_EQ(seen.sector, kEnd - 1 - sent);
    ++sent;
  }
  EXPECT_EQ(sent, writes.size());
}

SIM_TEST_SEEDS(DeleteSnap, WritesKeepTheirOrderWhileTheLastOneGoes, 12) {
  writes_keep_their_order(sim, false);
}
SIM_TEST_SEEDS(DeleteSnap, WritesKeepTheirOrderWhileTheLastTwoGo, 12) {
  writes_keep_their_order(sim, true);
}

SIM_TEST(DeleteSnap, DoesNotWaitForEverForHeldWrites) {
  SnapBench bench(sim);
  bench.add_started(7);
  ASSERT_EQ(stop_node(sim, 7), 0);
  FilterNode* filter = filter_at(kOrigin);
  filter->cowqueue.cowqueue_len.fetch_add(1);  // one that no pass ever sees
  const u64 before = sim.now_us();
  EXPECT_EQ(delete_node(sim, 7), 0);
  filter->cowqueue.cowqueue_len.fetch_sub(1);
  EXPECT_GE(sim.now_us() - before, 9'000'000u);
  EXPECT_LT(sim.now_us() - before, 12'000'000u);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(UnloadSnaps, KeepsTheirFiles) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  bench.add_started(8);
  ASSERT_EQ(bench.write(1, 0x99), 0);
  ASSERT_EQ(stop_node(sim, 8), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
  for (const u32 minor : {7u, 8u}) {
    EXPECT_EQ(bench.file(bench.data_file(minor)).size(), std::size_t{1 << 20});
    EXPECT_EQ(bench.file(bench.bmp_file(minor)).size(), 32u);
  }
  EXPECT_EQ(bench.file(bench.bmp_file(8))[0], 0x02);
  EXPECT_EQ(bench.file(bench.data_file(8))[4096], 0x11);
}

// Commands for a pair of snaps from several agents, with readers and a writer about.
SIM_TEST_SEEDS(SnapLife, CommandsRaceWithoutHanging, 40) {
  SnapBench bench(sim, {.debug = 0});
  bool over = false;
  sim.spawn("writer", [&] {
    while (!over) {
      EXPECT_EQ(bench.write(sim.random(64), static_cast<u8>(sim.random())), 0);
      sim.sleep_us(sim.random(500));
    }
  });
  sim.spawn("reader", [&] {
    while (!over) {
      const u32 minor = 7 + static_cast<u32>(sim.random(2));
      OpenNode opening;
      if (sim.open_node(kNode(minor), PLAT_MODE_READ, &opening) == 0) {
        Bytes data;
        sim.read(kNode(minor), 8 * sim.random(64), 8192, &data);
        sim.close_node(&opening);
      }
      sim.proc("/proc/snbf/snbf7/started");
      sim.sleep_us(sim.random(500));
    }
  });
  std::vector<Task*> agents;
  for (int agent = 0; agent < 2; ++agent) {
    agents.push_back(sim.spawn("agent", [&] {
      for (int i = 0; i < 8; ++i) {
        const u32 minor = 7 + static_cast<u32>(sim.random(2));
        switch (sim.random(4)) {
          case 0:
            bench.add(minor);
            break;
          case 1:
            start_node(sim, minor);
            break;
          case 2:
            stop_node(sim, minor);
            break;
          default:
            delete_node(sim, minor);
        }
      }
    }));
  }
  for (Task* agent : agents) sim.join(agent);
  over = true;
  sim.join_all();
}

// One that another task has stopped and begins to start again, once the filter's mutex is to be had.
SIM_TEST(StopSnap, AStopOfTheFilterDoesNotWaitForASnapThatIsBeingStarted) {
  SnapBench bench(sim);
  bench.add_started(7);
  SnapNode& snap = *bench.snap(7);
  snap.node_mutex.lock();
  bool stopped = false;
  Task* stopper =
      sim.spawn("stopper", [&] { stopped = stop_node(sim, snap.filter_node->minor) == 0; });
  sim.sleep_us(50'000);
  EXPECT_FALSE(stopped);
  snap.started.store(0);
  snap.filter_node->node_mutex.lock();
  EXPECT_EQ(snap.filter_node->started.load(), 0);
  snap.filter_node->node_mutex.unlock();
  snap.started.store(1);
  snap.node_mutex.unlock();
  sim.join(stopper);
  EXPECT_EQ(stop_node(sim, 7), 0);
}

// Whoever stops the filter looks, takes the snap's mutex, and looks again.
SIM_TEST_SEEDS(StopSnap, OneThatIsStoppedByAnotherMeanwhileIsLeftToHim, 60) {
  SnapBench bench(sim, {.debug = 0});
  bench.add_started(7);
  SnapNode* snap = bench.snap(7);
  bool over = false;
  Task* other = sim.spawn("other", [&] {
    while (!over) {
      {
        Sim::Quiet at_once{sim};
        snap->node_mutex.lock();
        if (snap->cow_data_file != nullptr) snap->started.store(static_cast<int>(sim.random(2)));
        snap->node_mutex.unlock();
      }
      sim.sleep_us(1 + sim.random(3));
    }
  });
  EXPECT_EQ(stop_node(sim, kOrigin), 0);
  over = true;
  sim.join(other);
  EXPECT_TRUE(snap->node_mutex.try_lock()) << "left held";
  if (snap->cow_data_file != nullptr) snap->started.store(1);
  snap->node_mutex.unlock();
  EXPECT_EQ(stop_node(sim, 7), 0);
  EXPECT_EQ(snap->cow_data_file, nullptr);
}

}  // namespace
}  // namespace snbf::sim
