// SPDX-License-Identifier: GPL-2.0-only
#include "snap/stallgate.h"

namespace snbf {

namespace {

constexpr u32 kLookAgainMs = 1000;  // during a stall

}  // namespace

void StallGate::init() {
  state_.store(kServing);
  watching_.store(0);
  closed_.store(0);
  was_watched_.store(0);
  watchdog_wait_.init();
  thread_wait_.init();
}

void StallGate::begin_file_operation(u32 snap_minor) {
  snap_minor_ = snap_minor;
  since_ms_.store(snbf_plat_ticks_ms());
  state_.store(kInFile);
  if (watching_.load() != 0) return;
  watching_.store(1);
  watchdog_wait_.wake();
}

bool StallGate::end_file_operation() {
  const auto try_to_serve = [this] {
    int in_file = kInFile;
    return state_.compare_exchange(in_file, kServing);
  };
  if (!try_to_serve()) thread_wait_.wait(try_to_serve);
  return was_watched_.exchange(0) != 0;
}

u64 StallGate::operation_age_ms() const {
  if (state_.load() == kServing) return 0;
  const u64 since = since_ms_.load();
  const u64 now = snbf_plat_ticks_ms();
  return now > since ? now - since : 0;
}

// An operation that begins after watching_ was lowered sees that, and wakes; one that had begun before
// is seen here.
void StallGate::rest_until_operation() {
  watching_.store(0);
  if (state_.load() != kServing) {
    watching_.store(1);
    return;
  }
  watchdog_wait_.wait_idle([this] { return watching_.load() != 0 || closed_.load() != 0; });
}

bool StallGate::wait_for_stall() {
  while (closed_.load() == 0) {
    if (state_.load() == kServing) {
      rest_until_operation();
      continue;
    }
    const u64 age_ms = operation_age_ms();
    if (age_ms >= kStallLimitMs) return true;
    plat_wait_entry entry = {};
    snbf_plat_wait_prepare(watchdog_wait_.raw(), &entry, 1);
    if (closed_.load() == 0) snbf_plat_wait_sleep_ms(static_cast<u32>(kStallLimitMs - age_ms));
    snbf_plat_wait_finish(watchdog_wait_.raw(), &entry);
  }
  return false;
}

bool StallGate::step_in() {
  int in_file = kInFile;
  if (!state_.compare_exchange(in_file, kWatched)) return false;
  // It may be another operation than the one that was looked at.
  if (operation_age_ms() >= kStallLimitMs) {
    was_watched_.store(1);
    return true;
  }
  state_.store(kInFile);
  thread_wait_.wake();
  return false;
}

void StallGate::step_out() {
  state_.store(kInFile);
  thread_wait_.wake();
  plat_wait_entry entry = {};
  snbf_plat_wait_prepare(watchdog_wait_.raw(), &entry, 1);
  if (closed_.load() == 0) snbf_plat_wait_sleep_ms(kLookAgainMs);
  snbf_plat_wait_finish(watchdog_wait_.raw(), &entry);
}

void StallGate::close() {
  closed_.store(1);
  watchdog_wait_.wake();
}

}  // namespace snbf
