// Who is about in a run of the swarm: see swarm_run.h.
#include <algorithm>
#include <cstring>

#include "swarm_run.h"

namespace snbf::rig {

namespace {

constexpr int kAddTries = 3000;

}  // namespace

void Swarm::person(const char* name, std::function<void()> body) {
  people_.push_back(sim.spawn(name, std::move(body)));
}

void Swarm::write_by(int steps, const std::function<void(int)>& some) {
  while (steps > 0 && !failed()) {
    sim::OpenNode opening;
    const int count = 1 + static_cast<int>(sim.random(8));
    const int rc = sim.open_node(rig_.node(), PLAT_MODE_READ | PLAT_MODE_WRITE, &opening);
    expect_open(rc);
    if (rc == 0) {
      some(std::min(count, steps));
      EXPECT_EQ(sim.close_node(&opening), 0);
    }
    steps -= count;
    sim.sleep_us(sim.random(5000));
  }
}

void Swarm::writer(int steps) {
  write_by(steps, [this](int some) { rig_.writer(some); });
}

void Swarm::map_writer(int steps) {
  write_by(steps, [this](int some) { rig_.map_writer(some); });
}

void Swarm::origin_reader(int steps) {
  sim::OpenNode opening;
  const int rc = sim.open_node(rig_.node(), PLAT_MODE_READ, &opening);
  expect_open(rc);
  if (rc != 0) return;
  rig_.origin_reader(steps);
  EXPECT_EQ(sim.close_node(&opening), 0);
}

void Swarm::opener(int steps) {
  for (int i = 0; i < steps && !failed(); ++i) {
    sim::OpenNode opening;
    const int rc = sim.open_node(rig_.node(), PLAT_MODE_READ | PLAT_MODE_WRITE, &opening);
    expect_open(rc);
    if (rc == 0) {
      sim.sleep_us(sim.random(1000));
      EXPECT_EQ(sim.close_node(&opening), 0);
    }
    sim.sleep_us(sim.random(3000));
  }
}

void Swarm::saver(int steps) {
  for (int i = 0; i < steps && !failed(); ++i) {
    expect_file_done(rig_.base.save(kTypes[sim.random(2)]), "a save");
    if (!plan_.has(Trait::Hurry)) sim.sleep_us(sim.random(6000));
  }
}

void Swarm::restarter(int steps) {
  for (int i = 0; i < steps && !failed(); ++i) {
    sim.sleep_us(sim.random(20'000));
    const bool removes = sim.random(2) == 0;
    const int rc = removes ? rig_.remove_node() : rig_.stop_node();
    if (rc != 0) {
      if (rc != kBusy)
        expect_done(rc, "the end of the node");  // somebody has it open, or a snap of it
      continue;
    }
    if (removes) {
      lose_unsaved();
      int minor = rig_.base.add("/dev/sda1", 0);
      // A partition that somebody has open is none to attach to; who tests its file system soon closes it.
      for (int tries = 0; minor == kBusy && plan_.has(Trait::Procfs) && tries < kAddTries;
           ++tries) {
        sim.sleep_us(sim.random(2000));
        minor = rig_.base.add("/dev/sda1", 0);
      }
      expect_file_done(minor, "the making of the node");
      if (minor != 0) continue;
    }
    const int started = rig_.base.start();
    // A snap's start has been faster.
    if (started != kAlready || !plan_.has(Trait::Snaps))
      expect_done(started, "the start of the node");
    ++rig_.tally[Met::Restart];
  }
}

// ---- The agent

void Swarm::agent(int steps) {
  for (int i = 0; i < steps && !failed(); ++i) {
    one_command(kTypes[sim.random(2)]);
    if (!plan_.has(Trait::Hurry)) sim.sleep_us(sim.random(4000));
  }
}

void Swarm::one_command(u32 type) {
  switch (sim.random(12)) {
    case 0:
    case 1:
      take(type, SNBF_GET_AND_CLR_BMP);
      break;
    case 2:
      take(type, SNBF_CLR_BMP);
      break;
    case 3:
      take_into_bad_memory(type);
      break;
    case 4:
      merge(type);
      break;
    case 5:
    case 6:
      set(type);
      break;
    case 7:
      load(type);
      break;
    default:
      look_at(type);
  }
}

void Swarm::judge_map(u32 type, const Extents& must, u64 losses, const Extents& map) {
  if (losses == losses_) expect_covers(must, map);
  if (!may_is_known()) return;
  const Extents surplus = missing(map, bitmaps_.models[type].may());
  EXPECT_TRUE(surplus.empty()) << "never written: " << show(surplus);
}

void Swarm::expect_covers(const Extents& must, const Extents& map) {
  EXPECT_TRUE(missing(must, map).empty()) << "lost changes: " << show(missing(must, map));
}

void Swarm::look_at(u32 type) {
  const Extents must = bitmaps_.models[type].must();
  const u64 losses = losses_;
  Extents map;
  const int rc = rig_.base.get(type, &map);
  expect_done(rc, "the reading of a bitmap");
  if (rc == 0) judge_map(type, must, losses, map);
}

void Swarm::take(u32 type, u32 command) {
  BitmapModel& model = bitmaps_.models[type];
  bitmaps_.taking[type] = true;
  model.begin_taking();
  const Extents must = model.must();
  const u64 losses = losses_;
  Extents map;
  const bool tells = command == SNBF_GET_AND_CLR_BMP;
  const int rc = tells ? rig_.base.get(type, &map, command) : rig_.base.clear(type);
  expect_done(rc, "the taking of a bitmap");
  if (rc != 0) {
    model.cancel_taking();
  } else {
    if (tells) judge_map(type, must, losses, map);
    model.end_taking(tells ? &map : nullptr);
    taken_[type] = map;
  }
  bitmaps_.taking[type] = false;
}

void Swarm::take_into_bad_memory(u32 type) {
  bitmaps_.models[type].begin_taking();
  sim::UserBuffer buffer = sim.user(kMapBytes);
  buffer.fault_at(sim.random(kMapBytes));
  snbf_bmp_cmd record = {0, type, static_cast<int>(kMapBytes), 0, buffer.address()};
  EXPECT_NE(sim.ioctl(SNBF_GET_AND_CLR_BMP, &record, sizeof(record)), 0);
  buffer.unmap();
  bitmaps_.models[type].cancel_taking();
}

void Swarm::merge(u32 type) {
  const int rc = rig_.base.merge(type, taken_[type]);
  expect_done(rc, "a merge");
  if (rc == 0 && !breaks()) bitmaps_.models[type].add(taken_[type]);
}

// Where its save may fail what is set is in memory alone; what was there is gone in any case.
void Swarm::set(u32 type) {
  BitmapModel& model = bitmaps_.models[type];
  if (sim.random(3) == 0) {
    const int rc = rig_.base.set(type, std::nullopt);
    expect_done(rc, "the filling of a bitmap");
    if (rc == 0 && !breaks()) model.fill();
    return;
  }
  Extents map = taken_[type];
  for (u64 count = sim.random(6); count > 0; --count) map.insert(sim.random(kExtents));
  map.insert(kExtents - 1);
  bitmaps_.taking[type] = true;
  model.begin_taking();
  const int rc = rig_.base.set(type, map);
  expect_done(rc, "the setting of a bitmap");
  if (rc != 0) {
    model.cancel_taking();
  } else {
    model.end_taking(nullptr);
    if (!breaks()) model.add(map);
  }
  bitmaps_.taking[type] = false;
}

void Swarm::load(u32 type) {
  const int rc = rig_.base.load_map(type);
  if (rc != kIoError) expect_file_done(rc, "the loading of a bitmap");  // there may be no file yet
  bitmaps_.models[type].load();
  look_at(type);
}

// ---- The odd and the curious

void Swarm::odd_commands(int steps) {
  constexpr u32 kOfNode[] = {SNBF_DEL_NODE, SNBF_START_NODE, SNBF_STOP_NODE};
  constexpr u32 kAll[] = {SNBF_DEL_NODE, SNBF_GET_INFO,  SNBF_SAVE_BMP, SNBF_CLR_BMP,
                          SNBF_SET_BMP,  SNBF_MERGE_BMP, SNBF_GET_BMP,  SNBF_GET_DEVICE_LIST};
  for (int i = 0; i < steps && !failed(); ++i) {
    snbf_minor_cmd nobody = {static_cast<u32>(90 + sim.random(100))};
    snbf_bmp_cmd senseless = {0, static_cast<u32>(2 + sim.random(1u << 30)), 25, 0, 0x10};
    switch (sim.random(4)) {
      case 0:
        EXPECT_NE(sim.ioctl(kOfNode[sim.random(3)], &nobody, sizeof(nobody)), 0);
        break;
      case 1:
        EXPECT_NE(sim.ioctl_at(kAll[sim.random(std::size(kAll))], Sim::kBadUserAddress), 0);
        break;
      case 2:
        EXPECT_NE(sim.ioctl(SNBF_GET_BMP, &senseless, sizeof(senseless)), 0);
        break;
      default:
        EXPECT_NE(sim.ioctl_at(static_cast<u32>(sim.random()) | 0xff, Sim::kBadUserAddress), 0);
    }
    sim.sleep_us(sim.random(3000));
  }
}

// Nobody's file system lies there, or one that the driver knows nothing of.
void Swarm::test_datablocks() {
  snbf_datablock_test record = {};
  std::strcpy(record.path, "/dev/sda1");
  const int rc = sim.ioctl(SNBF_TEST_DATABLOCK, &record, sizeof(record));
  EXPECT_TRUE(rc == kInvalid || is_excused(rc) || (rc == kIoError && breaks())) << rc;
}

void Swarm::look(int steps) {
  for (int i = 0; i < steps && !failed(); ++i) {
    if (sim.random(4) == 0) test_datablocks();
    for (const std::string& name : sim.list_proc("/proc/snbf")) sim.proc("/proc/snbf/" + name);
    for (const std::string& name : sim.list_proc("/proc/snbf/snbf0"))
      sim.proc("/proc/snbf/snbf0/" + name);
    sim.sleep_us(sim.random(6000));
  }
}

}  // namespace snbf::rig
