// SPDX-License-Identifier: GPL-2.0-only
#include "filter/parking.h"

#include "core/log.h"
#include "filter/bmp.h"
#include "filter/bmpfile.h"
#include "filter/kdirtyd.h"
#include "io/route.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "kparkd";
constexpr u32 kAskAgainMs = 1000;
constexpr u64 kHelperLimitMs = 10000;
// How long the helper waits between its tries while the writes go on without a flag.
constexpr u64 kFirstRetryMs = 1000;
constexpr u64 kLongestRetryMs = 60000;
// A list that is longer is not walked for each new write: those that may overlap it are parked unseen.
constexpr u32 kWalkedMax = 256;
constexpr u32 kTypes[] = {SNBF_BMP_INCR, SNBF_BMP_DIFF};

// Helpers that have been started and not been waited for.
constinit Atomic<int> helpers;
constinit plat_completion helper_exited = {};

bool both_cover(const FilterNode& node) REQUIRES(node.bmp_spin) {
  return node.incr_guard.covers() && node.diff_guard.covers();
}

bool may_all_go(FilterNode& node) {
  if (node.parking.stop.load() != 0 || node.started.load() == 0) return true;
  SpinGuard hold{node.bmp_spin};
  return both_cover(node);
}

// False: not within the limit.
bool wait_for_leave(FilterNode& node) {
  Parking& parking = node.parking;
  u64 since_ms;
  {
    SpinGuard hold{node.bmp_spin};
    since_ms = parking.since_ms;
  }
  const u64 deadline_ms = since_ms + kFlagLimitMs;
  u64 pause_ms = kHelpAfterMs;
  for (;;) {
    const u64 next_ms = snbf_plat_ticks_ms() + pause_ms;
    const bool is_last = next_ms >= deadline_ms;
    const auto may_go = [&node] { return may_all_go(node); };
    if (parking.worker_wait.wait_until(may_go, is_last ? deadline_ms : next_ms)) return true;
    if (is_last) return false;
    ask_for_help(node);
    pause_ms = kAskAgainMs;
  }
}

void give_up(FilterNode& node) {
  {
    SpinGuard hold{node.bmp_spin};
    if (both_cover(node)) return;
    if (!node.incr_guard.covers()) node.incr_guard.give_up_for_now();
    if (!node.diff_guard.covers()) node.diff_guard.give_up_for_now();
  }
  ask_for_help(node);
  snbf_log(kLogError,
           "%s(): The dirty flag of snbf(%d, %d) could not be raised within %d seconds. "
           "Its writes go on without it.",
           kOrigin, snbf_blk_major, static_cast<int>(node.minor),
           static_cast<int>(kFlagLimitMs / 1000));
}

SectorRange sectors_of(const plat_bio* bio) {
  plat_bio_info info;
  snbf_plat_bio_info(bio, &info);
  return {Sector{info.sector}, info.size_bytes >> 9};
}

// Null: the batch is over.
plat_bio* take_first_of_batch(FilterNode& node) {
  Parking& parking = node.parking;
  SpinGuard hold{node.bmp_spin};
  if (parking.batch_last == nullptr) return nullptr;
  plat_bio* const bio = parking.first;
  parking.first = snbf_plat_bio_next(bio);
  if (parking.first == nullptr) parking.last = nullptr;
  parking.sending = sectors_of(bio);
  parking.regions.remove(parking.sending);
  if (bio == parking.batch_last) {
    if (both_cover(node)) parking.behind_batch_since_ms = 0;
    const u64 since_ms = parking.behind_batch_since_ms;
    parking.batch_last = nullptr;
    parking.since_ms = since_ms == 0 ? snbf_plat_ticks_ms() : since_ms;
  }
  snbf_plat_bio_set_next(bio, nullptr);
  return bio;
}

// What is parked from now on is of another batch. What is parked again ends this one: what is behind it waits as well.
void send_batch(FilterNode& node) {
  Parking& parking = node.parking;
  {
    SpinGuard hold{node.bmp_spin};
    parking.batch_last = parking.last;
    parking.batch_waited_ms = snbf_plat_ticks_ms() - parking.since_ms;
  }
  while (plat_bio* bio = take_first_of_batch(node)) {
    continue_parked_write(node, bio);
    {
      SpinGuard hold{node.bmp_spin};
      parking.sending = {};
    }
    // Only now: whoever looks for writes under way finds it here, or where it went.
    if (parking.writes.fetch_sub(1) == 1) parking.empty_wait.wake();
  }
}

bool has_list(FilterNode& node) {
  SpinGuard hold{node.bmp_spin};
  return node.parking.first != nullptr;
}

void kparkd(void* argument) {
  FilterNode& node = *static_cast<FilterNode*>(argument);
  Parking& parking = node.parking;
  snbf_plat_thread_serves_writes();
  for (;;) {
    parking.worker_wait.wait_idle([&] { return parking.stop.load() != 0 || has_list(node); });
    if (!has_list(node)) break;
    if (!wait_for_leave(node)) give_up(node);
    send_batch(node);
  }
  snbf_plat_thread_exit(&parking.worker_ended);
}

void raise_what_lacks(FilterNode& node) {
  for (const u32 type : kTypes) {
    const ChangeBitmap bitmap{node, type};
    KsMutexGuard file_work{node.bmp_mutex};
    // The file work before this one may have outlasted the node: its file may be another's by now.
    if (node.parking.stop.load() != 0) return;
    bool covers;
    bool tries_again;
    {
      SpinGuard hold{bitmap.node.bmp_spin};
      covers = bitmap.guard().covers();
      tries_again = bitmap.guard().tries_again();
    }
    if (tries_again) {
      retry_dirty_flag(node, type);
    } else if (!covers) {
      snbf_block_write_dirty_flag(node, type, 1);
    }
  }
}

bool tries_again(FilterNode& node) {
  SpinGuard hold{node.bmp_spin};
  return node.incr_guard.tries_again() || node.diff_guard.tries_again();
}

// Sleeps until help is wanted, or until a flag that the writes no longer wait for is to be tried again.
void wait_for_call(FilterNode& node, u64& retry_ms) {
  Parking& parking = node.parking;
  const auto is_called = [&] {
    return parking.stop.load() != 0 || parking.help_wanted.load() != 0;
  };
  if (!tries_again(node)) {
    retry_ms = kFirstRetryMs;
    parking.helper_wait.wait_idle(is_called);
    return;
  }
  parking.helper_wait.wait_idle_until(is_called, snbf_plat_ticks_ms() + retry_ms);
  retry_ms = retry_ms * 2 < kLongestRetryMs ? retry_ms * 2 : kLongestRetryMs;
}

void kflagd(void* argument) {
  FilterNode& node = *static_cast<FilterNode*>(argument);
  Parking& parking = node.parking;
  snbf_plat_thread_serves_writes();
  u64 retry_ms = kFirstRetryMs;
  for (;;) {
    wait_for_call(node, retry_ms);
    if (parking.stop.load() != 0) break;
    parking.help_wanted.store(0);
    raise_what_lacks(node);
  }
  parking.helper_ended.store(1);
  put_filter_node(node);
  snbf_plat_thread_exit(&helper_exited);
}

// Only the time in which a flag is lacking counts.
void park_last(Parking& parking, plat_bio* bio, bool lacks_flag) {
  const u64 now_ms = snbf_plat_ticks_ms();
  if (parking.last == parking.batch_last) parking.behind_batch_since_ms = 0;
  const bool is_first_to_lack = parking.behind_batch_since_ms == 0 && lacks_flag;
  if (is_first_to_lack) parking.behind_batch_since_ms = now_ms;
  if (parking.last != nullptr) {
    snbf_plat_bio_set_next(parking.last, bio);
  } else {
    parking.first = bio;
  }
  if (parking.last == nullptr || (is_first_to_lack && parking.batch_last == nullptr))
    parking.since_ms = now_ms;
  parking.last = bio;
}

// The one that is being sent, once more: the batch ends with it, for it would go no further.
void park_first(Parking& parking, plat_bio* bio) {
  snbf_plat_bio_set_next(bio, parking.first);
  parking.first = bio;
  if (parking.last == nullptr) parking.last = bio;
  parking.batch_last = nullptr;
  parking.since_ms = snbf_plat_ticks_ms() - parking.batch_waited_ms;
  parking.behind_batch_since_ms = parking.since_ms;
}

void end_worker(Parking& parking) {
  parking.stop.store(1);
  parking.worker_wait.wake();
  snbf_plat_completion_wait(&parking.worker_ended);
}

}  // namespace

void init_parking(FilterNode& node) {
  node.parking.worker_wait.init();
  node.parking.helper_wait.init();
  node.parking.empty_wait.init();
}

int start_parking(FilterNode& node) {
  Parking& parking = node.parking;
  snbf_plat_completion_init(&parking.worker_ended);
  if (int rc = snbf_plat_thread_start("kparkd", kparkd, &node); rc < 0) return rc;
  if (helpers.load() == 0) snbf_plat_completion_init(&helper_exited);
  helpers.fetch_add(1);
  node.holders.fetch_add(1);
  const int rc = snbf_plat_thread_start("kflagd", kflagd, &node);
  if (rc > 0) return 0;
  node.holders.fetch_sub(1);
  helpers.fetch_sub(1);
  end_worker(parking);
  return rc;
}

void end_parking(FilterNode& node) {
  Parking& parking = node.parking;
  end_worker(parking);
  parking.helper_wait.wake();
  const u64 deadline_ms = snbf_plat_ticks_ms() + kHelperLimitMs;
  while (parking.helper_ended.load() == 0 && snbf_plat_ticks_ms() < deadline_ms) snbf_plat_yield();
}

void wait_for_parking_threads() {
  for (; helpers.load() > 0; helpers.fetch_sub(1)) snbf_plat_completion_wait(&helper_exited);
}

void park(Parking& parking, plat_bio* bio, Arrival arrival, bool lacks_flag) {
  arrival == Arrival::First ? park_last(parking, bio, lacks_flag) : park_first(parking, bio);
  parking.regions.add(sectors_of(bio));
  parking.writes.fetch_add(1);
}

bool may_overlap_parked(const Parking& parking, const SectorRange& sectors) {
  if (!parking.sending.empty() && parking.sending.overlaps(sectors)) return true;
  if (!parking.regions.may_overlap(sectors)) return false;
  if (parking.regions.all() > kWalkedMax) return true;
  for (const plat_bio* bio = parking.first; bio != nullptr; bio = snbf_plat_bio_next(bio)) {
    if (sectors_of(bio).overlaps(sectors)) return true;
  }
  return false;
}

void ask_for_help(FilterNode& node) {
  node.parking.help_wanted.store(1);
  node.parking.helper_wait.wake();
}

void wake_parking(FilterNode& node) {
  if (node.parking.writes.load() != 0) node.parking.worker_wait.wake();
}

bool wait_for_parked(FilterNode& node, u32 limit_ms) {
  Parking& parking = node.parking;
  if (parking.writes.load() == 0) return true;
  return parking.empty_wait.wait_until([&] { return parking.writes.load() == 0; },
                                       snbf_plat_ticks_ms() + limit_ms);
}

}  // namespace snbf
