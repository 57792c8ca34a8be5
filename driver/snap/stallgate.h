// SPDX-License-Identifier: GPL-2.0-only
// Between the COW thread and its watchdog: who serves the queue.
//
// The thread does, but while it is inside a file operation. There the watchdog may step in, and a
// thread that comes back meanwhile waits until the watchdog has stepped out again.
#pragma once

#include "core/sync.h"
#include "base/atomic.h"

namespace snbf {

constexpr u32 kStallLimitMs = 10000;

class StallGate {
 public:
  void init();

  // The thread's side: around each file operation. end answers whether the watchdog has stepped in
  // meanwhile: nothing that was known of the queue holds any more.
  void begin_file_operation(u32 snap_minor);
  bool end_file_operation();

  // The watchdog's side. Sleeps until a file operation has lasted for the limit; false: it is to end.
  bool wait_for_stall();
  // False when the operation is over. Between the two the queue is the watchdog's.
  bool step_in();
  void step_out();
  // Of the operation that stalls, while the watchdog is in.
  u32 snap_minor() const { return snap_minor_; }
  // Ends the watchdog.
  void close();

 private:
  enum State : int { kServing, kInFile, kWatched };

  void rest_until_operation();
  u64 operation_age_ms() const;

  Atomic<int> state_;
  Atomic<u64> since_ms_;
  Atomic<int> watching_;  // the watchdog looks by itself; else it must be woken
  Atomic<int> closed_;
  Atomic<int> was_watched_;
  u32 snap_minor_ = 0;  // before state_ leaves kServing
  WaitQueue watchdog_wait_;
  WaitQueue thread_wait_;
};

}  // namespace snbf
