// SPDX-License-Identifier: GPL-2.0-only
// The driver's own sleeping locks: both know their owner, log a misused unlock and otherwise
// ignore it.
//
// KsMutex is recursive. KsRwLock's write side is recursive for its owner. A waiting writer never
// holds back a reader: a reader may be what the present readers wait for. Against starving, a
// submitter that holds nothing may call pause_for_writer() first.
#pragma once

#include "base/atomic.h"
#include "base/thread_annotations.h"
#include "base/types.h"
#include "core/sync.h"

namespace snbf {

class CAPABILITY("ks mutex") KsMutex {
 public:
  void init();
  // May sleep.
  void lock() ACQUIRE();
  // False while another task holds it. Does not sleep.
  bool try_lock() TRY_ACQUIRE(true);
  void unlock() RELEASE();
  // By the calling task.
  bool is_mine() const;

 private:
  void take();

  plat_semaphore semaphore_ = {};
  // Keeps a reference on the task, so that a lock left held cannot be inherited by a new task at
  // the same address.
  Atomic<plat_task*> owner_;
  int depth_ = 0;  // only its owner looks at it
};

class CAPABILITY("ks lock") KsRwLock {
 public:
  // Free, whatever it was before. Nobody uses it yet.
  void init();
  // May sleep. The request path takes two of these for each request, so the free case stays inline.
  void read_lock() ACQUIRE_SHARED() NO_THREAD_SAFETY_ANALYSIS {
    if (!try_read()) wait_to_read();
  }
  void read_unlock() RELEASE_SHARED() NO_THREAD_SAFETY_ANALYSIS {
    int readers = count_.load();
    while (readers > 0) {
      if (!count_.compare_exchange(readers, readers - 1)) continue;
      if (readers == 1) wake_waiters();
      return;
    }
    report_not_read_locked();
  }
  // May sleep.
  void write_lock() ACQUIRE();
  // False when that did not succeed within the limit.
  bool write_lock_within(u32 limit_ms) TRY_ACQUIRE(true);
  void write_unlock() RELEASE();
  // Gives a waiting writer a chance: for at most the first 10 ms of each 100 that it waits. So a caller that
  // holds the lock further up its own stack loses little.
  void pause_for_writer();
  bool has_waiting_writer() const { return writers_waiting_.load(std::memory_order_relaxed) > 0; }
  // Above zero: readers. Below: the writer's depth.
  int count() const { return count_.load(); }

 private:
  bool try_read() {
    int readers = count_.load();
    while (readers >= 0) {
      if (count_.compare_exchange(readers, readers + 1)) return true;
    }
    return false;
  }
  // A waiter raises waiting_ and then looks at count_; whoever frees the lock lowers count_ and
  // then looks at waiting_. Both are sequentially consistent, so one of the two sees the other.
  void wake_waiters() {
    if (waiting_.load() > 0) queue_.wake();
  }
  bool try_write(plat_task* me);
  bool is_writer(plat_task* me) const { return count_.load() < 0 && owner_.load() == me; }
  void wait_to_read();
  // False after the deadline.
  bool wait_to_write(plat_task* me, u64 deadline_ms);
  void report_not_read_locked();

  Atomic<int> count_;
  Atomic<int> waiting_;  // tasks in the queue, so that a release without waiters takes no spin lock
  Atomic<int> writers_waiting_;
  Atomic<u64> writers_wait_since_ms_;  // the first of those that wait
  // The writer, with a reference; null before the count leaves the negative.
  Atomic<plat_task*> owner_;
  WaitQueue queue_;
};

class SCOPED_CAPABILITY KsMutexGuard {
 public:
  explicit KsMutexGuard(KsMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~KsMutexGuard() RELEASE() { mutex_.unlock(); }
  KsMutexGuard(const KsMutexGuard&) = delete;
  KsMutexGuard& operator=(const KsMutexGuard&) = delete;

 private:
  KsMutex& mutex_;
};

class SCOPED_CAPABILITY KsReadGuard {
 public:
  explicit KsReadGuard(KsRwLock& lock) ACQUIRE_SHARED(lock) : lock_(&lock) { lock_->read_lock(); }
  ~KsReadGuard() RELEASE_GENERIC() {
    if (lock_ != nullptr) lock_->read_unlock();
  }
  KsReadGuard(const KsReadGuard&) = delete;
  KsReadGuard& operator=(const KsReadGuard&) = delete;

  void unlock() NO_THREAD_SAFETY_ANALYSIS {
    lock_->read_unlock();
    lock_ = nullptr;
  }
  // The lock stays held after the scope.
  void leave_held() { lock_ = nullptr; }

 private:
  KsRwLock* lock_;
};

class SCOPED_CAPABILITY KsWriteGuard {
 public:
  explicit KsWriteGuard(KsRwLock& lock) ACQUIRE(lock) : lock_(&lock) { lock_->write_lock(); }
  ~KsWriteGuard() RELEASE_GENERIC() {
    if (lock_ != nullptr) lock_->write_unlock();
  }
  KsWriteGuard(const KsWriteGuard&) = delete;
  KsWriteGuard& operator=(const KsWriteGuard&) = delete;

  void unlock() NO_THREAD_SAFETY_ANALYSIS {
    lock_->write_unlock();
    lock_ = nullptr;
  }
  void leave_held() { lock_ = nullptr; }

 private:
  KsRwLock* lock_;
};

}  // namespace snbf
