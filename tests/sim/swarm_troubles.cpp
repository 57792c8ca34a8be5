// What breaks in a run of the swarm: see swarm_run.h.
#include <algorithm>

#include "swarm_run.h"

namespace snbf::rig {

using sim::Fault;
using sim::Op;

auto Swarm::troubles_of() -> std::vector<Trouble> {
  return {{Trait::FileFaults, [this] { fail_files(); }},
          {Trait::NoMemory, [this] { fail_memory(); }},
          {Trait::StoreFails, [this] { fail_device("sdb1"); }},
          {Trait::DiskFails, [this] { fail_device("sda1"); }},
          {Trait::StoreFull,
           [this] {
             sim.sleep_us(sim.random(20'000));
             sim.fs("store")->set_free_blocks(sim.random(60));
           }},
          {Trait::Stall, [this] { stall(); }},
          {Trait::SyncLoss, [this] { lose_syncs(); }},
          {Trait::Aborts, [this] { abort_store(); }}};
}

void Swarm::fail_one_of(std::span<const Fault> kinds, u64 nth_max) {
  const Fault kind = kinds[sim.random(kinds.size())];
  sim.fail_nth(kind, 1 + sim.random(nth_max));
  sim.sleep_us(2000 + sim.random(20'000));
  if (sim.fault_reached(kind)) ++rig_.tally[Met::Fault];
}

void Swarm::fail_files() {
  constexpr Fault kKinds[] = {Fault::FileWrite,  Fault::FileSync,   Fault::ZeroWrite,
                              Fault::ShortWrite, Fault::FileRead,   Fault::ShortRead,
                              Fault::FileOpen,   Fault::DirectWrite};
  fail_one_of(kKinds, 6);
}

void Swarm::lose_syncs() {
  sim.sleep_us(sim.random(10'000));
  if (sim.random(2) == 0) {
    sim.fail_nth(Fault::SyncLoss, 1 + sim.random(6));
  } else {
    sim.fail_always(Fault::SyncLoss);
  }
  sim.sleep_us(sim.random(8000));
  if (sim.fault_reached(Fault::SyncLoss)) ++rig_.tally[Met::Fault];
  sim.clear_fault(Fault::SyncLoss);
}

void Swarm::fail_memory() {
  constexpr Fault kKinds[] = {Fault::Heap, Fault::Virt, Fault::Page, Fault::BioAlloc,
                              Fault::ThreadStart};
  if (sim.random(4) == 0) sim.set_memory_pressure(true);
  fail_one_of(kKinds, 12);
  sim.set_memory_pressure(false);
}

void Swarm::fail_device(const char* name) {
  constexpr Op kWhole[] = {Op::Write, Op::Read, Op::Flush};
  // What may be torn must be met often, to be torn where it matters; and a flush has nothing to tear.
  constexpr Op kTorn[] = {Op::Write, Op::Read, Op::Discard, Op::WriteZeroes, Op::Write};
  const bool tears = plan_.has(Trait::Torn);
  const u64 sectors = sim.device(name)->bytes() / 512;
  sim.sleep_us(sim.random(tears ? 3000 : 15'000));
  sim.device(name)->fail_range(
      sim.random(sectors), 1 + sim.random(sectors / (tears ? 2 : 8)),
      tears ? kTorn[sim.random(std::size(kTorn))] : kWhole[sim.random(std::size(kWhole))],
      kIoError);
  const size_t before = sim.device(name)->history().size();
  sim.sleep_us(sim.random(10'000));
  const std::span seen = std::span(sim.device(name)->history()).subspan(before);
  rig_.tally[Met::Fault] +=
      static_cast<u64>(std::ranges::count_if(seen, [](const sim::Device::Seen& request) {
        return request.completed && request.error != 0;
      }));
  sim.device(name)->clear_failures();
}

void Swarm::stall() {
  sim.sleep_us(sim.random(50'000));
  sim.device("sdb1")->hold(true);
  sim.sleep_us(12'000'000 + sim.random(15'000'000));
  sim.device("sdb1")->hold(false);
  sim.device("sdb1")->release_all();
}

void Swarm::abort_store() {
  sim.sleep_us(sim.random(30'000));
  if (over_) return;
  sim.fs("store")->abort_journal();
  while (!over_ && !failed()) sim.sleep_us(5000);
}

void Swarm::repair_store() {
  rig_.is_mended = true;
  if (rig_.exists(0)) {
    for (const u32 type : kTypes) look_at(type);
    rig_.check_snaps();
  }
  if (failed()) return;
  rig_.mount_anew();
  for (const u32 type : kTypes) {
    Extents map;
    ASSERT_EQ(rig_.base.get(type, &map), 0);
    if (!files_may_lack_changes()) expect_covers(bitmaps_.models[type].must(), map);
    bitmaps_.begin_from(type, map);
  }
  log_judged_ = sim.log().lines().size();
}

void Swarm::lose_unsaved() {
  if (!plan_.has(Trait::Aborts) || !files_may_lack_changes()) return;
  for (const u32 type : kTypes) bitmaps_.models[type].lose();
  ++losses_;
  log_judged_ = sim.log().lines().size();
}

void Swarm::mend() {
  sim.clear_faults();
  sim.set_memory_pressure(false);
  sim.fs("store")->set_free_blocks(~0ull);
  for (const char* name : {"sda1", "sdb1"}) sim.device(name)->clear_failures();
  if (sim.fs("store")->aborted()) repair_store();
  if (failed() || rig_.exists(0)) return;
  ASSERT_EQ(rig_.base.add("/dev/sda1", 0), 0);
}

}  // namespace snbf::rig
