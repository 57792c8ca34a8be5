// SPDX-License-Identifier: GPL-2.0-only
// Writes that wait for the dirty flag of a bitmap file.
//
// The life of a parked write:
//   1. The request path has marked it, and finds that a whole file on disk lacks something. In the same
//      holding of bmp_spin it puts the write at the end of the node's list, and queues a request for the
//      flag unless one is queued. The submitter goes on; nothing is allocated for the write.
//   2. kdirtyd writes the flag, or a save writes a file that lacks nothing: the node's worker wakes.
//   3. The worker sends each write of the list on under fresh locks, from behind its marking. Only bits that a
//      command has taken away meanwhile are set again, which may park it again: at the front, with the time that
//      it has waited.
//
// Writes that overlap keep their order: who meets a parked one, or one on its way out of the list, is parked behind
// it, though no flag is in his way.
//
// The worker does no file work, so that it is there for the end: after kFlagLimitMs the writes go on as if
// the flag were raised, and an error line says so. Nor does it allocate for the flag: the memory may be what its
// writes are to give back. Where kdirtyd does not raise the flags within kHelpAfterMs (a file that lies on another
// node, whose own flag must come first, keeps it from serving that one; a request may find no memory; a file may
// fail) the worker asks a second thread of the node, again and again, which raises them itself. That thread goes on
// trying once the writes have been let go.
//
// Stop, deletion and unload wait until no write is parked, and so does a snap's start for its instant.
#pragma once

#include "base/atomic.h"
#include "base/thread_annotations.h"
#include "base/units.h"
#include "core/sync.h"
#include "platform/block.h"

namespace snbf {

struct FilterNode;

constexpr u32 kFlagLimitMs = 10000;
constexpr u32 kHelpAfterMs = 100;

// Whether a write comes from its submitter, or was parked before.
enum class Arrival { First, Again };

// How many writes of a list touch each part of the device, so that most of the others need not be compared with them.
class RegionCounts {
 public:
  void add(const SectorRange& sectors) {
    ++all_;
    for_each(sectors, [this](u64 region) { ++counts_[region]; });
  }
  void remove(const SectorRange& sectors) {
    --all_;
    for_each(sectors, [this](u64 region) { --counts_[region]; });
  }
  u32 all() const { return all_; }
  // False: none of them overlaps.
  bool may_overlap(const SectorRange& sectors) const {
    bool found = false;
    for_each(sectors, [&](u64 region) { found = found || counts_[region] != 0; });
    return found;
  }

 private:
  static constexpr u32 kRegions = 2048;
  static constexpr u32 kRegionShift = 7;  // of 64 KiB; those that lie kRegions apart share a count

  template <typename Visit>
  static void for_each(const SectorRange& sectors, Visit visit) {
    const u64 first = sectors.first.value >> kRegionShift;
    const u64 count = (sectors.last() >> kRegionShift) - first + 1;
    for (u64 n = 0; n < count && n < kRegions; ++n) visit((first + n) % kRegions);
  }

  u32 all_ = 0;
  u32 counts_[kRegions] = {};
};

struct Parking {
  // The list, linked through the requests; all of it under the node's bmp_spin.
  plat_bio* first = nullptr;
  plat_bio* last = nullptr;
  plat_bio* batch_last = nullptr;  // the last that the worker sends on now; null: it waits for a flag
  u64 since_ms = 0;                // the first of the list has waited for a flag since then, at most
  u64 behind_batch_since_ms = 0;   // the same of those behind batch_last; 0: none of them lacked one
  u64 batch_waited_ms = 0;         // so long the batch waited until it was let go
  // The write that has left the list, and has not reached what keeps its order from there.
  SectorRange sending = {};
  RegionCounts regions = {};  // of the list

  Atomic<int> writes;  // in the list, or on their way out of it
  WaitQueue worker_wait;
  WaitQueue helper_wait;
  WaitQueue empty_wait;
  Atomic<int> stop;
  Atomic<int> help_wanted;
  Atomic<int> helper_ended;
  plat_completion worker_ended = {};
};

// Before anything else here, for a record that nobody knows yet.
void init_parking(FilterNode& node);
// The node's two threads: 0 or the error of a start. May sleep.
int start_parking(FilterNode& node);
// Nobody parks any more. The worker sends on or fails what is left, and ends; a helper whose file
// work hangs is waited for as long as kdirtyd is. May sleep.
void end_parking(FilterNode& node);
// Before the driver's text goes: every thread that end_parking left behind has ended. May sleep.
void wait_for_parking_threads();

// Step 1; without `lacks_flag` the write waits for another one alone. bmp_spin is held; wake_parking follows
// behind it.
void park(Parking& parking, plat_bio* bio, Arrival arrival, bool lacks_flag);
// Whether a write might overtake a parked one. bmp_spin is held.
bool may_overlap_parked(const Parking& parking, const SectorRange& sectors);
// Has the helper raise the flags. Any lock but bmp_spin may be held.
void ask_for_help(FilterNode& node);
// After a change of a guard. Any lock but bmp_spin may be held.
void wake_parking(FilterNode& node);
// False: writes are still parked after `limit_ms`. Neither bmp_mutex nor io_rwlock is held. May sleep.
bool wait_for_parked(FilterNode& node, u32 limit_ms);

}  // namespace snbf
