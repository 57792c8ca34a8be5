// The power goes at any step. On the next boot each bitmap is all ones, or covers every change that
// had reached the partition since the snapshot that its file was made from: acknowledged or not,
// and whatever was going on.
#include <algorithm>
#include <cstdio>

#include "rig.h"

namespace snbf::rig {
namespace {

using sim::Fault;

struct Plan {
  bool faults = false;    // file work fails now and then
  bool restarts = false;  // stop, deletion and unload in between
  bool chain = false;     // the bitmap files lie on a file system that is mounted on another node
  bool hurry = false;     // commands without a pause
};

constexpr int kBelow = 1;  // minor of the node that the store lies on, over sdc1
constexpr const char* kGaveUp = "could not be raised within";

struct InFlight {
  u64 tickets[2];
  u64 sector;
  u32 bytes;
  u64 sent_us;
};

struct History {
  BitmapModel models[2] = {BitmapModel{kExtents}, BitmapModel{kExtents}};
  bool is_taking[2] = {};  // a command that takes bits away is under way: it has or has not
  std::map<u64, InFlight> in_flight;
  u64 next = 0;
  std::set<u64> below;  // extents of the node below that were written
  bool gave_up = false;
};

struct Tally {
  int all_ones = 0;
  int covering = 0;
  int not_judged = 0;
};

class Life {
 public:
  Life(Sim& sim, const Plan& plan, History& history)
      : sim_(sim), rig_(sim), plan_(plan), history_(history) {}

  void begin() {
    rig_.make_devices();
    rig_.load();
    if (plan_.chain) make_chain();
    add();
    for (const u32 type : kTypes) ASSERT_EQ(rig_.clear(type), 0);
    sim_.device("sda1")->clear_history();
  }

  void writer(int number) {
    for (;;) {
      sim::OpenNode node;
      if (sim_.open_node(rig_.node(), PLAT_MODE_READ | PLAT_MODE_WRITE, &node) != 0) {
        sim_.sleep_us(5000);
        continue;
      }
      for (u64 left = 1 + sim_.random(12); left > 0; --left) write(number);
      EXPECT_EQ(sim_.close_node(&node), 0);
      sim_.sleep_us(sim_.random(2000));
    }
  }

  void agent() {
    for (;;) {
      if (!plan_.hurry) sim_.sleep_us(sim_.random(60'000));
      command(kTypes[sim_.random(2)]);
    }
  }

  void saver() {
    for (;;) {
      sim_.sleep_us(sim_.random(30'000));
      rig_.save(kTypes[sim_.random(2)]);
      if (plan_.chain && sim_.random(2) == 0) rig_.save(kTypes[sim_.random(2)], kBelow);
    }
  }

  void faults() {
    constexpr Fault kKinds[] = {Fault::FileOpen,  Fault::FileWrite,  Fault::FileSync,
                                Fault::ZeroWrite, Fault::ShortWrite, Fault::Heap,
                                Fault::Virt,      Fault::PathLookup};
    for (;;) {
      sim_.fail_nth(kKinds[sim_.random(std::size(kKinds))], 1 + sim_.random(6));
      sim_.sleep_us(2000 + sim_.random(20'000));
    }
  }

  void restarter() {
    for (;;) {
      sim_.sleep_us(sim_.random(50'000));
      switch (sim_.random(3)) {
        case 0:
          if (rig_.stop() == 0) rig_.start();
          break;
        case 1:
          if (rig_.remove() == 0) add();
          break;
        default:
          if (plan_.chain || rig_.stop() != 0) break;
          if (sim_.unload_driver() == 0) rig_.load();
          if (!rig_exists()) add();
          rig_.start();
      }
    }
  }

 private:
  void make_chain() {
    sim_.add_device({.name = "sdc1", .bytes = kDiskBytes});
    ASSERT_EQ(rig_.add("/dev/sdc1", kBelow), kBelow);
    ASSERT_EQ(rig_.start(kBelow), 0);
    for (const u32 type : kTypes) ASSERT_EQ(rig_.clear(type, kBelow), 0);
    sim_.device("sdc1")->clear_history();
    ASSERT_EQ(sim_.mount(sim_.add_fs("upper", rig_.node(kBelow)), "/upper"), 0);
  }

  void add() {
    rig_.add("/dev/sda1", 0, plan_.chain ? "/upper" : "/store");
    rig_.start();
  }

  bool rig_exists() const { return sim_.disk_exists(rig_.node()); }

  void write(int number) {
    const u64 id = history_.next++;
    const u64 sector = sim_.random(kDiskBytes / 512 - 16);
    const u32 bytes = static_cast<u32>(1 + sim_.random(16)) * 512;
    InFlight& mine = history_.in_flight[id];
    mine = {{}, sector, bytes, sim_.now_us()};
    for (const u32 type : kTypes)
      mine.tickets[type] = history_.models[type].send(extents_of(sector, bytes));
    const int rc = sim_.write(rig_.node(), sector, Bytes(bytes, static_cast<sim::u8>(number)));
    EXPECT_EQ(rc, 0);
    for (const u32 type : kTypes)
      history_.models[type].end(history_.in_flight[id].tickets[type], rc == 0);
    history_.in_flight.erase(id);
    if (sim_.random(3) == 0) sim_.sleep_us(sim_.random(30'000));
  }

  // A failure of the save behind it is not told; the taking itself does not fail.
  template <typename Command>
  void take(u32 type, Command run) {
    history_.is_taking[type] = true;
    history_.models[type].begin_taking();
    run();
    history_.is_taking[type] = false;
  }

  void command(u32 type) {
    BitmapModel& model = history_.models[type];
    switch (sim_.random(6)) {
      case 0:
        rig_.save(type);
        break;
      case 1:
        take(type,
             [&] { rig_.clear(type) == 0 ? model.end_taking(nullptr) : model.cancel_taking(); });
        break;
      case 2:
        // What a merge brings is no change of the partition: where its save fails, it is in memory alone.
        if (rig_.merge(type, {1, 2, 3}) == 0 && !plan_.faults) model.add({1, 2, 3});
        break;
      case 3:
        rig_.load_map(type);
        break;
      default:
        take(type, [&] {
          Extents map;
          rig_.get(type, &map, SNBF_GET_AND_CLR_BMP) == 0 ? model.end_taking(&map)
                                                          : model.cancel_taking();
        });
    }
  }

  Sim& sim_;
  Rig rig_;
  const Plan& plan_;
  History& history_;
};

bool reached_device(const sim::Device& device, const InFlight& write) {
  return std::any_of(device.history().begin(), device.history().end(), [&](const auto& seen) {
    return seen.op == sim::Op::Write && seen.sector == write.sector && seen.bytes == write.bytes &&
           seen.sent_us >= write.sent_us;
  });
}

// What had reached the partition counts, though nobody had heard of it.
void settle(Sim& sim, const Plan& plan, History& history) {
  for (const auto& [id, write] : history.in_flight) {
    if (!reached_device(*sim.device("sda1"), write)) continue;
    for (const u32 type : kTypes) history.models[type].end(write.tickets[type], true);
  }
  history.gave_up = sim.log().contains(kGaveUp);
  if (!plan.chain) return;
  for (const auto& seen : sim.device("sdc1")->history()) {
    if (seen.op == sim::Op::Read || seen.op == sim::Op::Flush) continue;
    for (const u64 extent : extents_of(seen.sector, seen.bytes)) history.below.insert(extent);
  }
}

sim::Images live_until_the_cut(u64 seed, const Plan& plan, History& history) {
  Sim sim({.seed = seed});
  Life life(sim, plan, history);
  sim.spawn("init", [&] {
    life.begin();
    if (testing::Test::HasFatalFailure()) return;
    for (int number = 0; number < 2; ++number)
      sim.spawn("writer", [&, number] { life.writer(number); });
    sim.spawn("agent", [&] { life.agent(); });
    sim.spawn("saver", [&] { life.saver(); });
    if (plan.faults) sim.spawn("faults", [&] { life.faults(); });
    if (plan.restarts) sim.spawn("restarter", [&] { life.restarter(); });
    sim.sleep_us(1000 + sim.random(400'000));
    settle(sim, plan, history);
    sim.power_cut();
  });
  EXPECT_EQ(sim.run(), sim::RunEnd::PowerCut);
  return sim.take_images();
}

void judge(const Extents& must, const Extents& map, const std::string& which, Tally& tally) {
  const Extents lost = missing(must, map);
  EXPECT_TRUE(lost.empty()) << which << ": a clean file lacks " << show(lost);
  ++(map.size() == kExtents ? tally.all_ones : tally.covering);
}

void boot_again(u64 seed, const sim::Images& images, const Plan& plan, const History& history,
                Tally& tally) {
  Sim sim({.seed = seed, .images = &images});
  Rig rig(sim);
  const sim::RunEnd end = sim.run([&] {
    rig.make_devices(false);
    rig.load();
    if (plan.chain) {
      ASSERT_EQ(rig.add("/dev/sdc1", kBelow), kBelow);
      for (const u32 type : kTypes) {
        Extents map;
        ASSERT_EQ(rig.get(type, &map, SNBF_GET_BMP, kBelow), 0);
        judge(history.below, map, "below", tally);
      }
      ASSERT_EQ(rig.remove(kBelow), 0);
      ASSERT_EQ(sim.mount(sim.fs("upper"), sim.device("sdc1")->number(), "/upper"), 0);
    }
    ASSERT_EQ(rig.add("/dev/sda1", 0, plan.chain ? "/upper" : "/store"), 0);
    for (const u32 type : kTypes) {
      Extents map;
      ASSERT_EQ(rig.get(type, &map), 0);
      if (history.is_taking[type]) {
        ++tally.not_judged;
      } else {
        judge(history.models[type].must(), map,
              type == SNBF_BMP_INCR ? "Incremental" : "Differential", tally);
      }
    }
    ASSERT_EQ(rig.remove(), 0);
    ASSERT_EQ(sim.unload_driver(), 0);
  });
  EXPECT_EQ(end, sim::RunEnd::Done);
}

void cut_by_seeds(int seeds, const Plan& plan) {
  Tally tally;
  sim::for_seeds(seeds, [&](u64 seed) {
    History history;
    const sim::Images images = live_until_the_cut(seed, plan, history);
    if (history.gave_up) {
      ++tally.not_judged;
    } else if (!testing::Test::HasFailure()) {
      boot_again(seed, images, plan, history, tally);
    }
  });
  std::printf("  bitmaps after a power cut: %d all ones, %d covering, %d not judged\n",
              tally.all_ones, tally.covering, tally.not_judged);
  testing::Test::RecordProperty("all_ones", tally.all_ones);
  testing::Test::RecordProperty("covering", tally.covering);
  testing::Test::RecordProperty("not_judged", tally.not_judged);
  if (std::getenv("SNBF_SEED") == nullptr) {
    EXPECT_GT(tally.all_ones, 0);
    EXPECT_GT(tally.covering, 0);
  }
}

TEST(PowerCut, ABitmapIsAllOnesOrCoversEveryChangeSinceItsSave) { cut_by_seeds(200, {}); }

TEST(PowerCut, AmongCommandsWithoutAPause) { cut_by_seeds(150, {.hurry = true}); }

TEST(PowerCut, WhileFileWorkFails) { cut_by_seeds(200, {.faults = true}); }

TEST(PowerCut, AmongStopsDeletionsAndUnloads) {
  cut_by_seeds(150, {.faults = false, .restarts = true});
}

TEST(PowerCut, WithFilesOnAnotherNode) { cut_by_seeds(150, {.chain = true}); }

TEST(PowerCut, WithEverythingAtOnce) {
  cut_by_seeds(100, {.faults = true, .restarts = true, .chain = true, .hurry = true});
}

}  // namespace
}  // namespace snbf::rig
