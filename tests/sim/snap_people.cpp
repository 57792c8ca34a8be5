// Who is about while snaps live: see snap_rig.h.
#include <algorithm>

#include "snap_rig.h"

namespace snbf::rig {

// What is free is soon used again: the newest snap does not mind, but an older one may.
void SnapRig::write_freed() {
  const u64 from = std::max(2 * freed_.first, first_sector());
  const u64 end = 2 * (freed_.first + freed_.second);
  if (from >= end) return;
  const u64 count = 1 + sim.random(std::min<u64>(end - from, write_sectors_max));
  write(from + sim.random(end - from - count + 1), count);
}

void SnapRig::one_write() {
  if (map_ && sim.random(6) == 0) {
    change_map();
    return;
  }
  if (map_ && sim.random(3) == 0) {
    write_freed();
    return;
  }
  const u64 kind = sim.random(32);
  const u64 from = first_sector();
  if (kind == 0) {
    discard(from, sectors() - from);
    return;
  }
  const u64 room = sectors() - from;
  u64 count = 1 + sim.random(std::min<u64>(room, write_sectors_max));
  if (kind == 1) count = 1 + sim.random(room);
  u64 sector = from + sim.random(room - count + 1);
  if (kind >= 24) {  // whole blocks at block borders
    sector = std::max(sector / 8 * 8, from);
    count = std::min<u64>((count + 7) / 8 * 8, sectors() - sector);
  } else if (kind >= 20) {  // over a border of two chunks
    const u64 chunk = setup.chunk_bytes / 512;
    const u64 border = (1 + sim.random(std::max<u64>(sectors() / chunk, 2) - 1)) * chunk;
    if (border > from && border + 1 < sectors()) {
      sector = border - 1;
      count = 2;
    }
  }
  if (kind < 5 && setup.fs_blocks == 0) {
    discard(sector, count);
  } else {
    write(sector, count);
  }
}

void SnapRig::writer(int steps) {
  for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
    const u64 kind = sim.random(16);
    if (kind < 4) {
      pipeline();
    } else if (kind == 4) {
      flush();
    } else if (setup.fs_blocks != 0) {
      const u64 from = setup.fs_blocks * 8;
      const u64 count = 1 + sim.random(std::min<u64>(sectors() - from, write_sectors_max));
      write(from + sim.random(sectors() - from - count + 1), count);
    } else {
      one_write();
    }
    if (sim.random(3) == 0) sim.sleep_us(sim.random(3000));
  }
}

void SnapRig::map_writer(int steps) {
  for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
    sim.random(4) == 0 ? static_cast<void>(change_map()) : write_freed();
    if (sim.random(2) == 0) sim.sleep_us(sim.random(3000));
  }
}

void SnapRig::file_writer(int steps) {
  for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
    write_file_page(sim.random(file_pages_), sim.random(6) == 0);
    if (sim.random(4) == 0) sim.sleep_us(sim.random(3000));
  }
}

void SnapRig::origin_reader(int steps) {
  for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
    const u64 from = setup.fs_blocks * 8;
    const u32 count = static_cast<u32>(1 + sim.random(std::min<u64>(sectors() - from, 48)));
    read_origin(from + sim.random(sectors() - from - count + 1), count);
    if (sim.random(2) == 0) sim.sleep_us(sim.random(3000));
  }
}

void SnapRig::snap_reader(int steps) {
  for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
    const std::shared_ptr<Snap> snap = snaps.empty() ? nullptr : snaps[sim.random(snaps.size())];
    sim::OpenNode opening;
    if (snap != nullptr && snap->started &&
        sim.open_node(node(snap->minor), PLAT_MODE_READ, &opening) == 0) {
      for (u64 reads = 1 + sim.random(4); reads > 0 && snap->started; --reads) {
        const u32 count = static_cast<u32>(1 + sim.random(std::min<u64>(sectors(), 96)));
        read_snap(*snap, sim.random(sectors() - count + 1), count);
      }
      if (map_ && sim.random(4) == 0) check_map(*snap);
      EXPECT_EQ(sim.close_node(&opening), 0);
    }
    if (snap == nullptr || sim.random(2) == 0) sim.sleep_us(100 + sim.random(3000));
  }
}

void SnapRig::admin(int steps) {
  for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
    if (map_ && !node_may_go && sim.random(3) == 0) change_map();
    Snap* stopped = any_snap(false);
    Snap* started = any_snap(true);
    switch (sim.random(8)) {
      case 0:
      case 1:
      case 2:
        if (Snap* fresh = add_snap(); fresh != nullptr) bring_up(*fresh);
        break;
      case 3:
        if (stopped != nullptr) bring_up(*stopped);
        break;
      case 4:
        if (started != nullptr) stop_snap(*started);
        break;
      case 5:
        if (!snaps.empty()) delete_snap(*snaps[sim.random(snaps.size())]);
        break;
      case 6:
        if (stopped != nullptr && sim.random(2) == 0) delete_snap(*stopped);
        break;
      default:
        sim.proc("/proc/snbf/snbf0/snaps");
        sim.proc("/proc/snbf/snbf0/cowqueue_len");
    }
    sim.sleep_us(sim.random(8000));
  }
}

}  // namespace snbf::rig
