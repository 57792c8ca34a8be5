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
constexpr u32 kTypes[] = {SNBF_BMP_INCR, SNBF_BMP_DIFF};

// Helpers that have been started and not been waited for.
constinit Atomic<int> helpers;
constinit plat_completion helper_exited = {};

bool may_all_go(FilterNode& node) {
  if (node.parking.stop.load() != 0 || node.started.load() == 0) return true;
  SpinGuard hold{node.bmp_spin};
  return node.incr_guard.covers() && node.diff_guard.covers();
}

// Of a request that failed, or that could not be queued. A save that is under way asks at its end.
void ask_again(FilterNode& node) {
  for (const u32 type : kTypes) {
    const ChangeBitmap bitmap{node, type};
    bool must_ask;
    {
      SpinGuard hold{bitmap.node.bmp_spin};
      FileGuard& guard = bitmap.guard();
      must_ask = !guard.covers() && !guard.is_saving() && guard.ask_for_flag();
    }
    if (must_ask) snbf_sched_write_dirty_flag(node, type);
  }
}

void ask_for_help(FilterNode& node) {
  node.parking.help_wanted.store(1);
  node.parking.helper_wait.wake();
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
    if (pause_ms != kHelpAfterMs) ask_again(node);
    ask_for_help(node);
    pause_ms = kAskAgainMs;
  }
}

void give_up(FilterNode& node) {
  {
    SpinGuard hold{node.bmp_spin};
    if (node.incr_guard.covers() && node.diff_guard.covers()) return;
    if (!node.incr_guard.covers()) node.incr_guard.give_up();
    if (!node.diff_guard.covers()) node.diff_guard.give_up();
  }
  snbf_log(kLogError,
           "%s(): The dirty flag of snbf(%d, %d) could not be raised within %d seconds. "
           "Its writes go on without it.",
           kOrigin, snbf_blk_major, static_cast<int>(node.minor),
           static_cast<int>(kFlagLimitMs / 1000));
}

void send_all(FilterNode& node) {
  Parking& parking = node.parking;
  plat_bio* bio;
  {
    SpinGuard hold{node.bmp_spin};
    bio = parking.first;
    parking.first = parking.last = nullptr;
  }
  while (bio != nullptr) {
    plat_bio* const next = snbf_plat_bio_next(bio);
    snbf_plat_bio_set_next(bio, nullptr);
    continue_parked_write(node, bio);
    // Only now: whoever looks for writes under way finds it here, or where it went.
    if (parking.writes.fetch_sub(1) == 1) parking.empty_wait.wake();
    bio = next;
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
    send_all(node);
  }
  snbf_plat_thread_exit(&parking.worker_ended);
}

void raise_what_lacks(FilterNode& node) {
  for (const u32 type : kTypes) {
    const ChangeBitmap bitmap{node, type};
    KsMutexGuard file_work{node.bmp_mutex};
    // The file work before this one may have outlasted the node: its file may be another's by now.
    if (node.parking.stop.load() != 0) return;
    const bool covers = [&] {
      SpinGuard hold{bitmap.node.bmp_spin};
      return bitmap.guard().covers();
    }();
    if (!covers) snbf_block_write_dirty_flag(node, type, 1);
  }
}

void kflagd(void* argument) {
  FilterNode& node = *static_cast<FilterNode*>(argument);
  Parking& parking = node.parking;
  snbf_plat_thread_serves_writes();
  for (;;) {
    parking.helper_wait.wait_idle(
        [&] { return parking.stop.load() != 0 || parking.help_wanted.load() != 0; });
    if (parking.stop.load() != 0) break;
    parking.help_wanted.store(0);
    raise_what_lacks(node);
  }
  parking.helper_ended.store(1);
  put_filter_node(node);
  snbf_plat_thread_exit(&helper_exited);
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

void park(FilterNode& node, plat_bio* bio) {
  Parking& parking = node.parking;
  if (parking.last == nullptr) {
    parking.first = bio;
    parking.since_ms = snbf_plat_ticks_ms();
  } else {
    snbf_plat_bio_set_next(parking.last, bio);
  }
  parking.last = bio;
  parking.writes.fetch_add(1);
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
