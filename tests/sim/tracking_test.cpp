// Writers, an agent and a saver at once on a tracked partition, by seed, against a model of both bitmaps:
//
//   - no acknowledged write is ever missing from either bitmap;
//   - a bit that a get-and-clear handed out is never lost, and one that failed has cleared nothing;
//   - no bit is set that no write can have set;
//   - the partition holds what was written.
#include <algorithm>

#include "rig.h"

namespace snbf::rig {
namespace {

using sim::Fault;
using sim::Op;
using sim::SimBody;

class Tracking {
 public:
  explicit Tracking(Sim& sim) : rig_(sim), sim_(sim), models_{BitmapModel{kExtents}, BitmapModel{kExtents}} {}

  void begin() {
    rig_.make_devices();
    rig_.load();
    ASSERT_EQ(rig_.add(), 0);
    ASSERT_EQ(rig_.start(), 0);
    // There were no files: everything counts as changed.
    for (const u32 type : kTypes) {
      Extents map;
      ASSERT_EQ(rig_.get(type, &map), 0);
      ASSERT_EQ(map.size(), kExtents);
      models_[type].fill();
    }
    image_.assign(kDiskBytes, 0);
  }

  void finish() {
    for (const u32 type : kTypes) check_now(type);
    EXPECT_EQ(sim_.device("sda1")->all(), image_);
    ASSERT_EQ(rig_.remove(), 0);
    ASSERT_EQ(sim_.unload_driver(), 0);
  }

  // Each writer has a region of its own, so that the partition's contents are known; regions meet inside extents.
  void writer(int number, int writes) {
    const u64 sectors = kDiskBytes / 512 / kWriters;
    const u64 first = number * sectors;
    for (int i = 0; i < writes; ++i) {
      const u64 at = sim_.random(sectors);
      const u64 room = sectors - at;
      const u32 count = static_cast<u32>(1 + sim_.random(std::min<u64>(room, 40)));
      write(first + at, count * 512);
      if (sim_.random(4) == 0) sim_.sleep_us(sim_.random(2000));
    }
  }

  void agent(int commands) {
    for (int i = 0; i < commands; ++i) {
      one_command(kTypes[sim_.random(2)]);
      if (sim_.random(2) == 0) sim_.sleep_us(sim_.random(3000));
    }
  }

  void saver(int saves) {
    for (int i = 0; i < saves; ++i) {
      EXPECT_EQ(rig_.save(kTypes[sim_.random(2)]), 0);
      sim_.sleep_us(sim_.random(4000));
    }
  }

  void opener(int rounds) {
    for (int i = 0; i < rounds; ++i) {
      sim::OpenNode node;
      EXPECT_EQ(sim_.open_node(rig_.node(), PLAT_MODE_READ | PLAT_MODE_WRITE, &node), 0);
      sim_.sleep_us(sim_.random(1000));
      EXPECT_EQ(sim_.close_node(&node), 0);
      sim_.sleep_us(sim_.random(1000));
    }
  }

  void write(u64 sector, u32 bytes) {
    u64 tickets[2];
    for (const u32 type : kTypes) tickets[type] = models_[type].send(extents_of(sector, bytes));
    Bytes data(bytes);
    int rc;
    switch (sim_.random(8)) {
      case 0:
        rc = sim_.discard(rig_.node(), sector, bytes);
        break;
      case 1:
        rc = sim_.write_zeroes(rig_.node(), sector, bytes);
        break;
      default:
        for (sim::u8& byte : data) byte = static_cast<sim::u8>(sim_.random());
        rc = sim_.write(rig_.node(), sector, data, sim_.random(4) == 0);
    }
    EXPECT_EQ(rc, 0);
    std::copy(data.begin(), data.end(), image_.begin() + static_cast<long>(sector * 512));
    for (const u32 type : kTypes) models_[type].end(tickets[type], rc == 0);
  }

  // What must be set now is set; the model moves on while the command runs, so `may` is looked at afterwards.
  void check_now(u32 type) {
    const Extents must = models_[type].must();
    Extents map;
    ASSERT_EQ(rig_.get(type, &map), 0);
    EXPECT_TRUE(missing(must, map).empty()) << "lost changes: " << show(missing(must, map));
    EXPECT_TRUE(missing(map, models_[type].may()).empty())
        << "never written: " << show(missing(map, models_[type].may()));
  }

  void get_and_clear(u32 type) {
    models_[type].begin_taking();
    const Extents must = models_[type].must();
    Extents map;
    ASSERT_EQ(rig_.get(type, &map, SNBF_GET_AND_CLR_BMP), 0);
    EXPECT_TRUE(missing(must, map).empty()) << "lost changes: " << show(missing(must, map));
    EXPECT_TRUE(missing(map, models_[type].may()).empty())
        << "never written: " << show(missing(map, models_[type].may()));
    models_[type].end_taking(&map);
    taken_[type] = map;
  }

  Rig& rig() { return rig_; }
  BitmapModel& model(u32 type) { return models_[type]; }

  static constexpr int kWriters = 3;

 private:
  void one_command(u32 type) {
    switch (sim_.random(8)) {
      case 0:
      case 1:
      case 2:
        get_and_clear(type);
        break;
      case 3:
        get_and_clear_into_bad_memory(type);
        break;
      case 4:
        models_[type].begin_taking();
        EXPECT_EQ(rig_.clear(type), 0);
        models_[type].end_taking(nullptr);
        break;
      case 5:
        merge(type);
        break;
      default:
        check_now(type);
    }
  }

  void get_and_clear_into_bad_memory(u32 type) {
    models_[type].begin_taking();
    sim::UserBuffer buffer = sim_.user(kMapBytes);
    buffer.fault_at(sim_.random(kMapBytes));
    snbf_bmp_cmd record = {0, type, static_cast<int>(kMapBytes), 0, buffer.address()};
    EXPECT_EQ(sim_.ioctl(SNBF_GET_AND_CLR_BMP, &record, sizeof(record)), -14);
    buffer.unmap();
    models_[type].cancel_taking();
  }

  // A backup that failed gives back what it took.
  void merge(u32 type) {
    EXPECT_EQ(rig_.merge(type, taken_[type]), 0);
    models_[type].add(taken_[type]);
  }

  Rig rig_;
  Sim& sim_;
  BitmapModel models_[2];
  Extents taken_[2];
  Bytes image_;
};

SIM_TEST_SEEDS(Tracking, NoAcknowledgedWriteIsEverMissing, 1000) {
  Tracking run(sim);
  run.begin();
  if (testing::Test::HasFatalFailure()) return;
  for (int number = 0; number < Tracking::kWriters; ++number) {
    sim.spawn("writer" + std::to_string(number), [&run, number] { run.writer(number, 25); });
  }
  sim.spawn("agent", [&run] { run.agent(20); });
  sim.spawn("saver", [&run] { run.saver(8); });
  sim.spawn("udev", [&run] { run.opener(6); });
  sim.join_all();
  run.finish();
}

// Nothing but small writes and get-and-clear, as close together as they come: a change that is marked between the
// copy and the clearing would be in neither.
SIM_TEST_SEEDS(Tracking, WhatGetAndClearDoesNotHandOutIsStillThere, 1000) {
  Tracking run(sim);
  run.begin();
  if (testing::Test::HasFatalFailure()) return;
  for (int number = 0; number < 3; ++number) {
    sim.spawn("writer", [&run, &sim = sim] {
      for (int i = 0; i < 60; ++i) run.write(kExtentSectors * sim.random(kExtents), 512);
    });
  }
  sim.spawn("agent", [&run] {
    for (int i = 0; i < 60; ++i) run.get_and_clear(kTypes[i % 2]);
  });
  sim.join_all();
  for (const u32 type : kTypes) run.check_now(type);
  ASSERT_EQ(run.rig().remove(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

// The same while each kind of call fails now and then: a command may answer an error, a save may not reach the disk,
// but tracking goes on.
SIM_TEST_SEEDS(Tracking, FailingFilesAndMemoryLoseNoChange, 40) {
  Tracking run(sim);
  run.begin();
  if (testing::Test::HasFatalFailure()) return;
  bool over = false;
  sim.spawn("writer", [&] { run.writer(0, 40); });
  sim.spawn("saver", [&] {
    for (int i = 0; i < 12; ++i) {
      run.rig().save(kTypes[sim.random(2)]);
      sim.sleep_us(sim.random(3000));
    }
    over = true;
  });
  sim.spawn("faults", [&] {
    constexpr Fault kKinds[] = {Fault::Heap,     Fault::Virt,      Fault::FileOpen, Fault::FileWrite,
                                Fault::FileSync, Fault::ZeroWrite, Fault::ShortWrite};
    while (!over) {
      sim.fail_nth(kKinds[sim.random(std::size(kKinds))], 1 + sim.random(4));
      sim.sleep_us(500 + sim.random(2000));
    }
    sim.clear_faults();
  });
  sim.join_all();
  run.finish();
}

// Restarting the driver loses nothing either: what was marked before is in the files that the next load reads.
SIM_TEST_SEEDS(Tracking, BitmapsSurviveStopDeletionAndReload, 30) {
  Tracking run(sim);
  run.begin();
  if (testing::Test::HasFatalFailure()) return;
  for (int round = 0; round < 3; ++round) {
    sim::Task* writers[2];
    for (int number = 0; number < 2; ++number) {
      writers[number] = sim.spawn("writer", [&run, number] { run.writer(number, 8); });
    }
    sim.join(sim.spawn("agent", [&run] { run.agent(6); }));
    for (sim::Task* writer : writers) sim.join(writer);
    ASSERT_EQ(run.rig().remove(), 0);
    if (sim.random(2) == 0) {
      ASSERT_EQ(sim.unload_driver(), 0);
      run.rig().load();
    }
    ASSERT_EQ(run.rig().add(), 0);
    for (const u32 type : kTypes) {
      EXPECT_EQ(run.rig().dirty(type), 0) << "the file was not trusted";
      run.check_now(type);
    }
    ASSERT_EQ(run.rig().start(), 0);
  }
  run.finish();
}

}  // namespace
}  // namespace snbf::rig
