// Boots, lives and what is judged between them: see swarm_run.h.
#include "swarm_run.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace snbf::rig {

namespace {

constexpr const char* kGaveUp = "could not be raised within";
constexpr u64 kFsBlocks = 64;

SnapSetup setup_of(const Plan& plan, bool first_boot) {
  constexpr u32 kChunks[] = {4096, 8192, 65536};
  SnapSetup setup;
  setup.bytes = kDiskBytes;
  setup.chunk_bytes = kChunks[plan.seed % 3];
  setup.store_bytes = 16 << 20;
  setup.store_on_node = plan.has(Trait::Below);
  if (plan.seed % 7 == 0) setup.store_latency_max_us = 4000;  // many writes are held at once
  setup.store_takes_direct = plan.seed % 4 != 0;
  setup.bio_based = plan.has(Trait::BioBased);
  setup.queue_depth = plan.seed % 5 == 0 ? 1 + plan.seed / 5 % 8 : 0;
  setup.latency_max_us = plan.has(Trait::Slow) ? 30'000 : 400;
  setup.fs_blocks = first_boot && plan.has(Trait::Files) ? kFsBlocks : 0;
  setup.has_map = plan.has(Trait::Map);
  constexpr u32 kInPlacePercent[] = {10, 50, 95};
  setup.tears = plan.has(Trait::Torn);
  if (plan.has(Trait::InPlace)) setup.in_place_percent = kInPlacePercent[plan.seed / 8 % 3];
  setup.small_groups = plan.seed / 4 % 2 != 0;
  return setup;
}

}  // namespace

Swarm::Swarm(Sim& kernel, const Plan& plan, Bitmaps& bitmaps, model::Partition& partition,
             bool first_boot)
    : sim(kernel),
      plan_(plan),
      bitmaps_(bitmaps),
      first_boot_(first_boot),
      before_(partition),
      rig_(kernel, setup_of(plan, first_boot), first_boot ? &partition : nullptr) {
  rig_.listener = &bitmaps;
  if (plan.seed % 4 == 1) rig_.snaps_max = 1;  // each deletion is that of the last
  rig_.copies_may_fail = breaks_copies();
  rig_.partition_may_fail = plan.has(Trait::DiskFails);
  rig_.node_may_go = plan.has(Trait::Restarts);
  rig_.memory_may_fail = plan.has(Trait::NoMemory);
  // Its flag, the copy in front of it, its own copy: one stall outlasts the first and ends within the second, and the
  // next follows at once. Or a copy fails in the midst, and there is one more request, that the snap is given up.
  if (plan.has(Trait::Stall)) rig_.longest_wait_allowed_us = 3 * rig::kWriteWaitMaxUs;
}

void Swarm::run() {
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

bool Swarm::breaks_copies() const {
  return plan_.has(Trait::FileFaults) || plan_.has(Trait::NoMemory) ||
         plan_.has(Trait::StoreFails) || plan_.has(Trait::StoreFull) || plan_.has(Trait::Stall) ||
         plan_.has(Trait::SyncLoss) || plan_.has(Trait::Aborts);
}

bool Swarm::files_may_lack_changes() const {
  const std::span lines = std::span(sim.log().lines()).subspan(log_judged_);
  return std::ranges::any_of(
      lines, [](const sim::LogLine& line) { return line.text.find(kGaveUp) != line.text.npos; });
}

bool Swarm::is_excused(int rc) const {
  if (rc == 0) return true;
  if (plan_.has(Trait::NoMemory) && (rc == kNoMemory || rc == kFault)) return true;
  return plan_.has(Trait::Restarts) && rc == kInvalid;  // the node is away just then
}

void Swarm::expect_done(int rc, const char* command) const {
  EXPECT_TRUE(is_excused(rc)) << command << " answers " << rc;
}

void Swarm::expect_file_done(int rc, const char* command) const {
  if (!breaks_copies()) expect_done(rc, command);
}

void Swarm::expect_open(int rc) const {
  if (plan_.has(Trait::Restarts) || plan_.has(Trait::NoMemory)) return;
  EXPECT_EQ(rc, 0) << "the node could not be opened";
}

bool Swarm::may_is_known() const {
  // An order to save has its snapshot before it has the file: one that comes to write it last may bring back what was
  // taken since, and a restart then loads that.
  const bool may_come_back = plan_.has(Trait::Saver) && plan_.has(Trait::Restarts);
  return !breaks() && !plan_.has(Trait::Files) && !plan_.has(Trait::Cut) && !may_come_back;
}

void Swarm::begin() {
  rig_.begin();
  for (const u32 type : kTypes) bitmaps_.models[type].fill();  // there were no files
}

void Swarm::begin_again() {
  rig_.judge_cut(before_, plan_.has(Trait::Files) ? kFsBlocks : 0);
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

void Swarm::send_people(int steps) {
  people_.clear();
  for (int i = 0; i < 2; ++i) person("writer", [this, steps] { writer(steps); });
  if (plan_.has(Trait::Map)) person("file system", [this, steps] { map_writer(2 * steps); });
  if (plan_.has(Trait::Agent)) person("agent", [this, steps] { agent(steps); });
  if (plan_.has(Trait::Saver)) person("saver", [this, steps] { saver(steps); });
  if (plan_.has(Trait::Openers)) person("opener", [this, steps] { opener(steps); });
  if (plan_.has(Trait::Snaps)) person("admin", [this, steps] { rig_.admin(steps); });
  if (plan_.has(Trait::Readers)) {
    person("origin reader", [this, steps] { origin_reader(steps); });
    if (plan_.has(Trait::Snaps)) person("snap reader", [this, steps] { rig_.snap_reader(steps); });
  }
  if (sim::FileSystem* data = sim.fs("data"); data != nullptr && data->mounted())
    person("file writer", [this, steps] { rig_.file_writer(steps); });
  if (plan_.has(Trait::Restarts)) person("restarter", [this, steps] { restarter(steps / 2); });
  if (plan_.has(Trait::OddCommands)) person("odd", [this, steps] { odd_commands(steps); });
  if (plan_.has(Trait::Procfs)) person("looker", [this, steps] { look(steps / 2); });
}

void Swarm::live() {
  over_ = false;
  rig_.is_mended = false;
  send_people(plan_.steps);
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
  rig_.forget_gone();
}

void Swarm::settle() {
  rig_.is_mended = true;
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

void Swarm::rest() {
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

Tally Swarm::tally() {
  Tally tally = rig_.tally;
  for (const char* name : {"sda1", "sdb1"}) {
    const sim::Device* device = sim.device(name);
    if (device == nullptr) continue;
    tally[Met::InPlace] += device->counts().in_place;
    tally[Met::Refused] += device->counts().refused;
    tally[Met::Torn] += device->counts().torn;
  }
  if (const sim::FileSystem* store = sim.fs("store"); store != nullptr) {
    tally[Met::LostPage] += store->lost_pages();
    tally[Met::Refusal] += store->refusals();
  }
  return tally;
}

Outcome run_plan(const Plan& plan) {
  Bitmaps bitmaps;
  model::Partition partition(kDiskBytes / 512);
  Outcome outcome;
  sim::Images images;
  bool cut = false;
  {
    Sim sim({.seed = plan.seed});
    Swarm swarm(sim, plan, bitmaps, partition, true);
    const sim::RunEnd end = sim.run([&] { swarm.run(); });
    outcome = {sim.steps(), sim.trace_hash(), 0, swarm.tally()};
    cut = end == sim::RunEnd::PowerCut;
    // Given up on after ten seconds, with a line that says so: then nothing is promised.
    if (swarm.files_may_lack_changes()) {
      for (const u32 type : kTypes) bitmaps.taking[type] = true;
    }
    if (testing::Test::HasFailure()) {
      std::printf("  failed in step %" PRIu64 " of the first boot\n", sim.steps());
    }
    if (!cut || testing::Test::HasFailure()) return outcome;
    images = sim.take_images();
  }
  Sim sim({.seed = plan.seed + 1, .images = &images});
  Swarm swarm(sim, plan, bitmaps, partition, false);
  EXPECT_EQ(sim.run([&] { swarm.run(); }), sim::RunEnd::Done);
  if (testing::Test::HasFailure()) {
    std::printf("  failed in step %" PRIu64 " after the power cut\n", sim.steps());
  }
  outcome.tally.add(swarm.tally());
  return {outcome.steps + sim.steps(), outcome.hash * 31 + sim.trace_hash(), 1, outcome.tally};
}

}  // namespace snbf::rig
