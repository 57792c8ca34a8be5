// SPDX-License-Identifier: GPL-2.0-only
#include "block/kslock.h"

#include "core/log.h"

namespace snbf {

namespace {

constexpr u32 kPauseForWriterMs = 10;
constexpr u32 kPauseEveryMs = 100;
constexpr u64 kNever = ~u64{0};

}  // namespace

void KsMutex::init() {
  snbf_plat_sem_init(&semaphore_, 1);
  owner_.store(nullptr);
  depth_ = 0;
}

bool KsMutex::is_mine() const { return owner_.load() == snbf_plat_task_current(); }

void KsMutex::lock() NO_THREAD_SAFETY_ANALYSIS {
  if (is_mine()) {
    ++depth_;
    return;
  }
  snbf_plat_sem_down(&semaphore_);
  take();
}

bool KsMutex::try_lock() NO_THREAD_SAFETY_ANALYSIS {
  if (is_mine()) {
    ++depth_;
    return true;
  }
  if (!snbf_plat_sem_try_down(&semaphore_)) return false;
  take();
  return true;
}

void KsMutex::take() {
  plat_task* const me = snbf_plat_task_current();
  snbf_plat_task_get(me);
  owner_.store(me);
  depth_ = 1;
}

void KsMutex::unlock() NO_THREAD_SAFETY_ANALYSIS {
  if (!is_mine()) {
    snbf_log(kLogError, "%s(): Can't unlock mutex: not owner.", "ksmutex_unlock");
    return;
  }
  if (--depth_ > 0) return;
  plat_task* const me = owner_.exchange(nullptr);
  snbf_plat_sem_up(&semaphore_);
  snbf_plat_task_put(me);
}

void KsRwLock::init() {
  count_.store(0);
  waiting_.store(0);
  writers_waiting_.store(0);
  owner_.store(nullptr);
  queue_.init();
}

void KsRwLock::wait_to_read() {
  waiting_.fetch_add(1);
  queue_.wait([this] { return try_read(); });
  waiting_.fetch_sub(1);
}

void KsRwLock::report_not_read_locked() {
  snbf_log(kLogError, "%s(): Can't release RO lock: not locked.", "ksread_unlock");
}

bool KsRwLock::try_write(plat_task* me) {
  int free = 0;
  if (!count_.compare_exchange(free, -1)) return false;
  snbf_plat_task_get(me);
  owner_.store(me);
  return true;
}

void KsRwLock::write_lock() NO_THREAD_SAFETY_ANALYSIS {
  plat_task* const me = snbf_plat_task_current();
  if (is_writer(me)) {
    count_.fetch_sub(1);
    return;
  }
  if (!try_write(me)) wait_to_write(me, kNever);
}

bool KsRwLock::write_lock_within(u32 limit_ms) NO_THREAD_SAFETY_ANALYSIS {
  plat_task* const me = snbf_plat_task_current();
  return try_write(me) || wait_to_write(me, snbf_plat_ticks_ms() + limit_ms);
}

bool KsRwLock::wait_to_write(plat_task* me, u64 deadline_ms) {
  const auto try_to_write = [this, me] { return try_write(me); };
  u64 now_ms = snbf_plat_ticks_ms();
  // Behind the stamp, so that nobody who sees a writer sees an old one.
  if (writers_waiting_.load() == 0) writers_wait_since_ms_.store(now_ms);
  writers_waiting_.fetch_add(1);
  waiting_.fetch_add(1);
  // One pause may not be enough: a reader that holds the lock may itself wait for longer.
  bool locked;
  do {
    const u64 next_ms = now_ms + kPauseEveryMs;
    locked = queue_.wait_until(try_to_write, next_ms < deadline_ms ? next_ms : deadline_ms);
    now_ms = snbf_plat_ticks_ms();
    if (!locked) writers_wait_since_ms_.store(now_ms);
  } while (!locked && now_ms < deadline_ms);
  waiting_.fetch_sub(1);
  writers_waiting_.fetch_sub(1);
  return locked;
}

void KsRwLock::write_unlock() NO_THREAD_SAFETY_ANALYSIS {
  plat_task* const me = snbf_plat_task_current();
  if (!is_writer(me)) {
    snbf_log(kLogError, "%s(): Can't release RW lock: not owner.", "kswrite_unlock");
    return;
  }
  if (count_.load() < -1) {
    count_.fetch_add(1);
    return;
  }
  owner_.store(nullptr);
  count_.store(0);
  snbf_plat_task_put(me);
  wake_waiters();
}

void KsRwLock::pause_for_writer() {
  const u64 deadline_ms = writers_wait_since_ms_.load() + kPauseForWriterMs;
  if (snbf_plat_ticks_ms() >= deadline_ms) return;
  waiting_.fetch_add(1);
  queue_.wait_until([this] { return writers_waiting_.load() <= 0; }, deadline_ms);
  waiting_.fetch_sub(1);
}

}  // namespace snbf
