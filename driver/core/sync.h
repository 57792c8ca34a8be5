// SPDX-License-Identifier: GPL-2.0-only
// Spin locks with guards, and waiting, over the platform's.
#pragma once

#include "base/thread_annotations.h"
#include "base/types.h"
#include "platform/sync.h"
#include "platform/task.h"

namespace snbf {

// Never taken in an interrupt. Nobody sleeps while holding one.
class CAPABILITY("spin lock") SpinLock {
 public:
  void init(const char* name) { snbf_plat_spin_init(&spin_, name); }
  void lock() ACQUIRE() { snbf_plat_spin_lock(&spin_); }
  void unlock() RELEASE() { snbf_plat_spin_unlock(&spin_); }

 private:
  plat_spin spin_ = {};
};

// Taken with interrupts off, in any context.
class CAPABILITY("spin lock") IrqSpinLock {
 public:
  void init(const char* name) { snbf_plat_spin_init(&spin_, name); }
  unsigned long lock() ACQUIRE() { return snbf_plat_spin_lock_irqsave(&spin_); }
  void unlock(unsigned long state) RELEASE() { snbf_plat_spin_unlock_irqrestore(&spin_, state); }

 private:
  plat_spin spin_ = {};
};

class SCOPED_CAPABILITY SpinGuard {
 public:
  explicit SpinGuard(SpinLock& lock) ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  ~SpinGuard() RELEASE() { lock_.unlock(); }
  SpinGuard(const SpinGuard&) = delete;
  SpinGuard& operator=(const SpinGuard&) = delete;

  // Opens the lock for one call and takes it again behind it.
  template <typename F>
  void unlocked(F call) NO_THREAD_SAFETY_ANALYSIS {
    lock_.unlock();
    call();
    lock_.lock();
  }

 private:
  SpinLock& lock_;
};

class SCOPED_CAPABILITY IrqSpinGuard {
 public:
  explicit IrqSpinGuard(IrqSpinLock& lock) ACQUIRE(lock) : lock_(lock), state_(lock_.lock()) {}
  ~IrqSpinGuard() RELEASE() { lock_.unlock(state_); }
  IrqSpinGuard(const IrqSpinGuard&) = delete;
  IrqSpinGuard& operator=(const IrqSpinGuard&) = delete;

  template <typename F>
  void unlocked(F call) NO_THREAD_SAFETY_ANALYSIS {
    lock_.unlock(state_);
    call();
    state_ = lock_.lock();
  }

 private:
  IrqSpinLock& lock_;
  unsigned long state_;
};

// Work of the calling task that writes may wait for: it must not wait for them in turn, when memory or dirty pages
// run short.
class ServesWrites {
 public:
  ServesWrites() : state_(snbf_plat_serve_writes_begin()) {}
  ~ServesWrites() { snbf_plat_serve_writes_end(state_); }
  ServesWrites(const ServesWrites&) = delete;
  ServesWrites& operator=(const ServesWrites&) = delete;

 private:
  unsigned state_;
};

class WaitQueue {
 public:
  void init() { snbf_plat_waitq_init(&queue_); }
  void wake() { snbf_plat_wake(&queue_); }

  // Sleeps until `condition()` holds; it may be looked at several times. No lock is held meanwhile.
  template <typename Condition>
  void wait(Condition condition) {
    wait_in(condition, 0);
  }
  // The same for a thread that has nothing to do until then.
  template <typename Condition>
  void wait_idle(Condition condition) {
    wait_in(condition, 1);
  }
  // The same until a point of snbf_plat_ticks_ms(); false when that came first.
  template <typename Condition>
  bool wait_until(Condition condition, u64 deadline_ms) {
    return wait_in_until(condition, deadline_ms, 0);
  }
  template <typename Condition>
  bool wait_idle_until(Condition condition, u64 deadline_ms) {
    return wait_in_until(condition, deadline_ms, 1);
  }
  plat_waitq* raw() { return &queue_; }

 private:
  template <typename Condition>
  bool wait_in_until(Condition condition, u64 deadline_ms, int idle) {
    plat_wait_entry entry = {};
    bool holds;
    for (;;) {
      snbf_plat_wait_prepare(&queue_, &entry, idle);
      holds = condition();
      const u64 now = snbf_plat_ticks_ms();
      if (holds || now >= deadline_ms) break;
      snbf_plat_wait_sleep_ms(static_cast<u32>(deadline_ms - now));
    }
    snbf_plat_wait_finish(&queue_, &entry);
    return holds;
  }
  template <typename Condition>
  void wait_in(Condition condition, int idle) {
    plat_wait_entry entry = {};
    for (;;) {
      snbf_plat_wait_prepare(&queue_, &entry, idle);
      if (condition()) break;
      snbf_plat_wait_sleep();
    }
    snbf_plat_wait_finish(&queue_, &entry);
  }

  plat_waitq queue_ = {};
};

}  // namespace snbf
