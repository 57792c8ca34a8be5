// Everything at once, or nearly: each seed decides which people are about, what breaks, and how a
// life ends. Judged by the models of both bitmaps, of the partition and of every snap's image.
//
//   SNBF_PLAN="seed=7 on=agent,full steps=9 lives=1"  runs one plan, and prints what became of it
//   SNBF_SWARM=FIRST-LAST                             runs these seeds, a line each
#include "swarm.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "snap_rig.h"

namespace snbf::rig {
namespace {

using sim::Fault;
using sim::Op;

constexpr const char* kGaveUp = "could not be raised within";
constexpr u64 kFsBlocks = 64;

// What each bitmap must hold, over all lives of a run.
class Bitmaps : public WriteListener {
 public:
  u64 sent(u64 sector, u64 sectors) override {
    for (const u32 type : kTypes)
      tickets_[next_][type] =
          models[type].send(extents_of(sector, static_cast<u32>(sectors * 512)));
    return next_++;
  }
  void ended(u64 ticket, bool ok) override {
    for (const u32 type : kTypes) models[type].end(tickets_[ticket][type], ok);
    tickets_.erase(ticket);
  }
  // Nobody is about, and the bitmap is known to be `map`.
  void begin_from(u32 type, const Extents& map) {
    models[type] = BitmapModel(kExtents);
    models[type].add(map);
    taking[type] = false;
  }

  BitmapModel models[2] = {BitmapModel{kExtents}, BitmapModel{kExtents}};
  bool taking[2] = {};  // a command that takes bits away is under way: it has or has not

 private:
  std::map<u64, std::map<u32, u64>> tickets_;
  u64 next_ = 0;
};

SnapSetup setup_of(const Plan& plan, bool first_boot) {
  constexpr u32 kChunks[] = {4096, 8192, 65536};
  SnapSetup setup;
  setup.bytes = kDiskBytes;
  setup.chunk_bytes = kChunks[plan.seed % 3];
  setup.store_bytes = 16 << 20;
  setup.store_on_node = plan.has(Trait::Below);
  setup.store_takes_direct = plan.seed % 4 != 0;
  setup.bio_based = plan.has(Trait::BioBased);
  setup.queue_depth = plan.seed % 5 == 0 ? 1 + plan.seed / 5 % 8 : 0;
  setup.latency_max_us = plan.has(Trait::Slow) ? 30'000 : 400;
  setup.fs_blocks = first_boot && plan.has(Trait::Files) ? kFsBlocks : 0;
  return setup;
}

// One boot of a run: lives, until its end or a power cut.
class Swarm {
 public:
  Swarm(Sim& kernel, const Plan& plan, Bitmaps& bitmaps, bool first_boot)
      : sim(kernel),
        plan_(plan),
        bitmaps_(bitmaps),
        first_boot_(first_boot),
        rig_(kernel, setup_of(plan, first_boot)) {
    rig_.listener = &bitmaps;
    rig_.copies_may_fail = breaks_copies();
    rig_.partition_may_fail = plan.has(Trait::DiskFails);
    rig_.memory_may_fail = plan.has(Trait::NoMemory);
    rig_.waits_checked = !plan.has(Trait::Stall);
  }

  void run() {
    first_boot_ ? begin() : begin_again();
    for (int life = 1; life <= plan_.lives && !failed(); ++life) {
      const bool last = life == plan_.lives;
      if (first_boot_ && last && plan_.has(Trait::Cut)) {
        sim.power_cut_at_us(sim.now_us() + 2000 +
                            sim.random(plan_.has(Trait::Slow) ? 400'000 : 60'000));
      }
      live();
      if (!failed()) settle();
      if (!last && !failed()) rest();
    }
    if (!failed()) rig_.end(sim.random(2) == 0);
  }

 private:
  static bool failed() { return testing::Test::HasFailure(); }
  bool breaks_copies() const {
    return plan_.has(Trait::FileFaults) || plan_.has(Trait::NoMemory) ||
           plan_.has(Trait::StoreFails) || plan_.has(Trait::StoreFull) || plan_.has(Trait::Stall);
  }
  bool breaks() const { return breaks_copies() || plan_.has(Trait::DiskFails); }
  // Also the file system's own writes set bits, and a file that is not trusted sets them all.
  bool may_is_known() const {
    return !breaks() && !plan_.has(Trait::Files) && !plan_.has(Trait::Cut);
  }

  void begin() {
    rig_.begin();
    for (const u32 type : kTypes) bitmaps_.models[type].fill();  // there were no files
  }

  // After a power cut: each bitmap covers what was acknowledged, whatever its file went through.
  void begin_again() {
    rig_.begin_again();
    sim.device("sda1")->poke(0, rig_.partition.initial());
    for (const u32 type : kTypes) {
      Extents map;
      ASSERT_EQ(rig_.base.get(type, &map), 0);
      if (!bitmaps_.taking[type]) expect_covers(bitmaps_.models[type].must(), map);
      bitmaps_.begin_from(type, map);
    }
    ASSERT_EQ(rig_.base.start(), 0);
  }

  void expect_covers(const Extents& must, const Extents& map) {
    EXPECT_TRUE(missing(must, map).empty()) << "lost changes: " << show(missing(must, map));
  }

  // ---- A life: all people, and what breaks beside them until the last has gone.

  void live() {
    over_ = false;
    people_.clear();
    const int steps = plan_.steps;
    for (int i = 0; i < 2; ++i) person("writer", [this, steps] { writer(steps); });
    if (plan_.has(Trait::Agent)) person("agent", [this, steps] { agent(steps); });
    if (plan_.has(Trait::Saver)) person("saver", [this, steps] { saver(steps); });
    if (plan_.has(Trait::Openers)) person("opener", [this, steps] { opener(steps); });
    if (plan_.has(Trait::Snaps)) person("admin", [this, steps] { rig_.admin(steps); });
    if (plan_.has(Trait::Readers)) {
      person("origin reader", [this, steps] { origin_reader(steps); });
      if (plan_.has(Trait::Snaps))
        person("snap reader", [this, steps] { rig_.snap_reader(steps); });
    }
    if (sim::FileSystem* data = sim.fs("data"); data != nullptr && data->mounted())
      person("file writer", [this, steps] { rig_.file_writer(steps); });
    if (plan_.has(Trait::Restarts)) person("restarter", [this, steps] { restarter(steps / 2); });
    if (plan_.has(Trait::OddCommands)) person("odd", [this, steps] { odd_commands(steps); });
    if (plan_.has(Trait::Procfs)) person("looker", [this, steps] { look(steps / 2); });
    std::vector<sim::Task*> troubles;
    for (const auto& [trait, trouble] : troubles_of()) {
      if (plan_.has(trait))
        troubles.push_back(sim.spawn("trouble", [this, trouble] {
          while (!over_ && !failed()) trouble();
        }));
    }
    for (sim::Task* task : people_) sim.join(task);
    over_ = true;
    for (sim::Task* task : troubles) sim.join(task);
    mend();
  }

  void person(const char* name, std::function<void()> body) {
    people_.push_back(sim.spawn(name, std::move(body)));
  }

  void writer(int steps) {
    while (steps > 0 && !failed()) {
      sim::OpenNode opening;
      const int count = 1 + static_cast<int>(sim.random(8));
      if (sim.open_node(rig_.node(), PLAT_MODE_READ | PLAT_MODE_WRITE, &opening) == 0) {
        rig_.writer(std::min(count, steps));
        EXPECT_EQ(sim.close_node(&opening), 0);
      }
      steps -= count;
      sim.sleep_us(sim.random(5000));
    }
  }

  void origin_reader(int steps) {
    sim::OpenNode opening;
    if (sim.open_node(rig_.node(), PLAT_MODE_READ, &opening) != 0) return;
    rig_.origin_reader(steps);
    EXPECT_EQ(sim.close_node(&opening), 0);
  }

  void opener(int steps) {
    for (int i = 0; i < steps && !failed(); ++i) {
      sim::OpenNode opening;
      const int rc = sim.open_node(rig_.node(), PLAT_MODE_READ | PLAT_MODE_WRITE, &opening);
      if (rc == 0) {
        sim.sleep_us(sim.random(1000));
        EXPECT_EQ(sim.close_node(&opening), 0);
      } else if (!plan_.has(Trait::Restarts) && !plan_.has(Trait::NoMemory)) {
        ADD_FAILURE() << "the node could not be opened: " << rc;
      }
      sim.sleep_us(sim.random(3000));
    }
  }

  void saver(int steps) {
    for (int i = 0; i < steps && !failed(); ++i) {
      rig_.base.save(kTypes[sim.random(2)]);
      if (!plan_.has(Trait::Hurry)) sim.sleep_us(sim.random(6000));
    }
  }

  void restarter(int steps) {
    for (int i = 0; i < steps && !failed(); ++i) {
      sim.sleep_us(sim.random(20'000));
      if (sim.random(2) == 0) {
        if (rig_.base.stop() == 0) rig_.base.start();
      } else if (rig_.base.remove() == 0) {
        rig_.base.add("/dev/sda1", 0);
        rig_.base.start();
      }
    }
  }

  // ---- The agent

  void agent(int steps) {
    for (int i = 0; i < steps && !failed(); ++i) {
      one_command(kTypes[sim.random(2)]);
      if (!plan_.has(Trait::Hurry)) sim.sleep_us(sim.random(4000));
    }
  }

  void one_command(u32 type) {
    switch (sim.random(8)) {
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
      default:
        look_at(type);
    }
  }

  void judge_map(u32 type, const Extents& must, const Extents& map) {
    expect_covers(must, map);
    if (!may_is_known()) return;
    const Extents surplus = missing(map, bitmaps_.models[type].may());
    EXPECT_TRUE(surplus.empty()) << "never written: " << show(surplus);
  }

  void look_at(u32 type) {
    const Extents must = bitmaps_.models[type].must();
    Extents map;
    if (rig_.base.get(type, &map) == 0) judge_map(type, must, map);
  }

  void take(u32 type, u32 command) {
    BitmapModel& model = bitmaps_.models[type];
    bitmaps_.taking[type] = true;
    model.begin_taking();
    const Extents must = model.must();
    Extents map;
    const bool tells = command == SNBF_GET_AND_CLR_BMP;
    const int rc = tells ? rig_.base.get(type, &map, command) : rig_.base.clear(type);
    if (rc != 0) {
      model.cancel_taking();
    } else {
      if (tells) judge_map(type, must, map);
      model.end_taking(tells ? &map : nullptr);
      taken_[type] = map;
    }
    bitmaps_.taking[type] = false;
  }

  void take_into_bad_memory(u32 type) {
    bitmaps_.models[type].begin_taking();
    sim::UserBuffer buffer = sim.user(kMapBytes);
    buffer.fault_at(sim.random(kMapBytes));
    snbf_bmp_cmd record = {0, type, static_cast<int>(kMapBytes), 0, buffer.address()};
    EXPECT_NE(sim.ioctl(SNBF_GET_AND_CLR_BMP, &record, sizeof(record)), 0);
    buffer.unmap();
    bitmaps_.models[type].cancel_taking();
  }

  // A backup that failed gives back what it took. Where its save may fail it is in memory alone.
  void merge(u32 type) {
    const int rc = rig_.base.merge(type, taken_[type]);
    if (rc == 0 && !breaks()) bitmaps_.models[type].add(taken_[type]);
  }

  // ---- Those who ask for what there is not, and those who look at everything

  void odd_commands(int steps) {
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

  void look(int steps) {
    for (int i = 0; i < steps && !failed(); ++i) {
      for (const std::string& name : sim.list_proc("/proc/snbf")) sim.proc("/proc/snbf/" + name);
      for (const std::string& name : sim.list_proc("/proc/snbf/snbf0"))
        sim.proc("/proc/snbf/snbf0/" + name);
      sim.sleep_us(sim.random(6000));
    }
  }

  // ---- What breaks

  using Trouble = std::pair<Trait, std::function<void()>>;

  std::vector<Trouble> troubles_of() {
    return {{Trait::FileFaults, [this] { fail_files(); }},
            {Trait::NoMemory, [this] { fail_memory(); }},
            {Trait::StoreFails, [this] { fail_device("sdb1"); }},
            {Trait::DiskFails, [this] { fail_device("sda1"); }},
            {Trait::StoreFull,
             [this] {
               sim.sleep_us(sim.random(20'000));
               sim.fs("store")->set_free_blocks(sim.random(60));
             }},
            {Trait::Stall, [this] { stall(); }}};
  }

  void fail_files() {
    constexpr Fault kKinds[] = {Fault::FileWrite,  Fault::FileSync,   Fault::ZeroWrite,
                                Fault::ShortWrite, Fault::FileRead,   Fault::ShortRead,
                                Fault::FileOpen,   Fault::DirectWrite};
    sim.fail_nth(kKinds[sim.random(std::size(kKinds))], 1 + sim.random(6));
    sim.sleep_us(2000 + sim.random(20'000));
  }

  void fail_memory() {
    constexpr Fault kKinds[] = {Fault::Heap, Fault::Virt, Fault::Page, Fault::BioAlloc,
                                Fault::ThreadStart};
    if (sim.random(4) == 0) sim.set_memory_pressure(true);
    sim.fail_nth(kKinds[sim.random(std::size(kKinds))], 1 + sim.random(12));
    sim.sleep_us(2000 + sim.random(20'000));
    sim.set_memory_pressure(false);
  }

  void fail_device(const char* name) {
    constexpr Op kOps[] = {Op::Write, Op::Read, Op::Flush};
    const u64 sectors = sim.device(name)->bytes() / 512;
    sim.sleep_us(sim.random(15'000));
    sim.device(name)->fail_range(sim.random(sectors), 1 + sim.random(sectors / 8),
                                 kOps[sim.random(3)], kIoError);
    sim.sleep_us(sim.random(10'000));
    sim.device(name)->clear_failures();
  }

  // Each file operation has its ten seconds, so what comes before must be over.
  void stall() {
    sim.sleep_us(sim.random(50'000));
    sim.device("sdb1")->hold(true);
    sim.sleep_us(12'000'000 + sim.random(15'000'000));
    sim.device("sdb1")->hold(false);
    sim.device("sdb1")->release_all();
  }

  void mend() {
    sim.clear_faults();
    sim.set_memory_pressure(false);
    sim.fs("store")->set_free_blocks(~0ull);
    for (const char* name : {"sda1", "sdb1"}) sim.device(name)->clear_failures();
    if (rig_.exists(0)) return;
    ASSERT_EQ(rig_.base.add("/dev/sda1", 0), 0);
  }

  // ---- Between lives, with nobody about

  void settle() {
    if (rig_.info(0).started == 0) {
      ASSERT_EQ(rig_.base.start(), 0);
    }
    if (sim::FileSystem* data = sim.fs("data"); data != nullptr && data->mounted()) {
      ASSERT_EQ(sim.unmount(data), 0);
    }
    for (const u32 type : kTypes) look_at(type);
    if (!rig_.partition_may_fail) rig_.check_partition();
    rig_.check_snaps();
  }

  void rest() {
    if (breaks()) {
      while (!rig_.snaps.empty() && !failed()) {
        const size_t before = rig_.snaps.size();
        rig_.delete_snap(*rig_.snaps[0]);
        if (rig_.snaps.size() == before) break;  // postponed: it goes with the node
      }
      return;
    }
    rig_.stop_all_and_resume(plan_.has(Trait::Reload) && !plan_.has(Trait::Below));
    if (failed()) return;
    for (const u32 type : kTypes) look_at(type);
    rig_.check_snaps();
  }

  Sim& sim;
  const Plan& plan_;
  Bitmaps& bitmaps_;
  const bool first_boot_;
  SnapRig rig_;
  std::vector<sim::Task*> people_;
  Extents taken_[2];
  bool over_ = false;
};

struct Outcome {
  u64 steps = 0;
  u64 hash = 0;
  int cuts = 0;
};

Outcome run_plan(const Plan& plan) {
  Bitmaps bitmaps;
  Outcome outcome;
  sim::Images images;
  bool cut = false;
  {
    Sim sim({.seed = plan.seed});
    Swarm swarm(sim, plan, bitmaps, true);
    const sim::RunEnd end = sim.run([&] { swarm.run(); });
    outcome = {sim.steps(), sim.trace_hash(), 0};
    cut = end == sim::RunEnd::PowerCut;
    // Given up on after ten seconds, with a line that says so: then nothing is promised.
    if (sim.log().contains(kGaveUp)) {
      for (const u32 type : kTypes) bitmaps.taking[type] = true;
    }
    if (testing::Test::HasFailure()) {
      std::printf("  failed in step %" PRIu64 " of the first boot\n", sim.steps());
    }
    if (!cut || testing::Test::HasFailure()) return outcome;
    images = sim.take_images();
  }
  Sim sim({.seed = plan.seed + 1, .images = &images});
  Swarm swarm(sim, plan, bitmaps, false);
  EXPECT_EQ(sim.run([&] { swarm.run(); }), sim::RunEnd::Done);
  if (testing::Test::HasFailure()) {
    std::printf("  failed in step %" PRIu64 " after the power cut\n", sim.steps());
  }
  return {outcome.steps + sim.steps(), outcome.hash * 31 + sim.trace_hash(), 1};
}

void run_and_tell(const Plan& plan) {
  std::printf("plan %s\n", to_text(plan).c_str());
  std::fflush(stdout);
  SCOPED_TRACE("SNBF_PLAN=\"" + to_text(plan) + "\"");
  const Outcome outcome = run_plan(plan);
  std::printf("%s steps=%" PRIu64 " hash=%016" PRIx64 " cuts=%d\n",
              testing::Test::HasFailure() ? "failed" : "done", outcome.steps, outcome.hash,
              outcome.cuts);
  std::fflush(stdout);
}

TEST(Swarm, EverySeedKeepsEveryPromise) {
  const char* plan_text = std::getenv("SNBF_PLAN");
  const char* seeds_text = std::getenv("SNBF_SWARM");
  if (plan_text != nullptr) {
    Plan plan;
    ASSERT_TRUE(parse_plan(plan_text, &plan)) << plan_text;
    run_and_tell(plan);
    return;
  }
  u64 first = 1, last = 0;
  if (seeds_text != nullptr) {
    ASSERT_EQ(std::sscanf(seeds_text, "%" SCNu64 "-%" SCNu64, &first, &last), 2) << seeds_text;
    for (u64 seed = first; seed <= last && !testing::Test::HasFailure(); ++seed)
      run_and_tell(plan_of_seed(seed));
    return;
  }
  u64 steps = 0;
  int runs = 0, cuts = 0;
  sim::for_seeds(300, [&](u64 seed) {
    const Plan plan = plan_of_seed(seed);
    SCOPED_TRACE("SNBF_PLAN=\"" + to_text(plan) + "\"");
    const Outcome outcome = run_plan(plan);
    steps += outcome.steps;
    cuts += outcome.cuts;
    ++runs;
  });
  std::printf("  %d runs, %d power cuts, %" PRIu64 " steps\n", runs, cuts, steps);
}

TEST(Swarm, TheSameSeedGoesTheSameWay) {
  sim::for_seeds(12, [](u64 seed) {
    const Outcome one = run_plan(plan_of_seed(seed));
    const Outcome other = run_plan(plan_of_seed(seed));
    EXPECT_EQ(one.hash, other.hash);
    EXPECT_EQ(one.steps, other.steps);
  });
}

TEST(Swarm, APlanIsItsText) {
  for (u64 seed = 1; seed <= 50; ++seed) {
    const Plan plan = plan_of_seed(seed);
    Plan again;
    ASSERT_TRUE(parse_plan(to_text(plan), &again));
    EXPECT_EQ(to_text(again), to_text(plan));
    EXPECT_EQ(again.traits, plan.traits);
  }
  Plan plan;
  EXPECT_FALSE(parse_plan("seed=1 on=agents", &plan));
  EXPECT_FALSE(parse_plan("sneed=1", &plan));
  EXPECT_FALSE(parse_plan("seed", &plan));
}

}  // namespace
}  // namespace snbf::rig
