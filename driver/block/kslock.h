// The driver's own sleeping locks: both know their owner, log a misused unlock and otherwise
// ignore it.
//
// KsMutex is recursive. KsRwLock's write side is recursive for its owner. A waiting writer never holds
// back a reader: a reader may be what the present readers wait for. Against starving, a submitter that
// holds nothing may call pause_for_writer() first.
#pragma once

#include "base/atomic.h"
#include "base/thread_annotations.h"
#include "core/sync.h"

namespace snbf {

class CAPABILITY("ks mutex") KsMutex {
 public:
  void init();
  // May sleep.
  void lock() ACQUIRE();
  void unlock() RELEASE();
  // By the calling task.
  bool is_mine() const;

 private:
  plat_semaphore semaphore_ = {};
  // Keeps a reference on the task, so that a lock left held cannot be inherited by a new task at the same address.
  Atomic<plat_task*> owner_;
  int depth_ = 0;  // only its owner looks at it
};

class CAPABILITY("ks lock") KsRwLock {
 public:
  void init(const char* name);
  // All four may sleep, but for a reader's unlock.
  void read_lock() ACQUIRE_SHARED();
  void read_unlock() RELEASE_SHARED();
  void write_lock() ACQUIRE();
  void write_unlock() RELEASE();
  // At most 10 ms, while a writer waits. The caller holds no lock at all.
  void pause_for_writer();
  // Above zero: readers. Below: the writer's depth.
  int count() const { return count_.load(); }

 private:
  bool try_read();

  SpinLock spin_;
  WaitQueue queue_;
  Atomic<int> count_;
  Atomic<int> waiting_;  // tasks in the queue, so that a release without waiters takes no spin lock
  Atomic<int> writers_waiting_;
  Atomic<plat_task*> owner_;
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
