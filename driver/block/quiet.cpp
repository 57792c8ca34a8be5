// SPDX-License-Identifier: GPL-2.0-only
#include "block/quiet.h"

#include "base/errno.h"
#include "core/log.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_block_start_device";
constexpr u64 kLimitMs = 60000;
// How long requests are kept out at a time: at first, and at most. Openers of the node wait as long, and for the requests
// that are being routed besides.
constexpr u32 kFirstRestMs = 100;
constexpr u32 kFirstDrainMs = 200;
constexpr u32 kLongestMs = 4000;
constexpr u32 kAttemptMs = 1000;  // for the requests that are being routed

u32 twice(u32 limit_ms) { return limit_ms < kLongestMs / 2 ? 2 * limit_ms : kLongestMs; }

}  // namespace

QuietPoint::~QuietPoint() NO_THREAD_SAFETY_ANALYSIS {
  if (is_held_) {
    filter_.io_rwlock.write_unlock();
    filter_.node_mutex.unlock();
  }
  if (frozen_ != nullptr) snbf_plat_bdev_thaw(frozen_);
}

bool QuietPoint::is_late() const {
  return static_cast<s64>(snbf_plat_ticks_ms() - deadline_ms_) >= 0;
}

u32 QuietPoint::until_deadline(u32 limit_ms) const {
  const s64 left_ms = static_cast<s64>(deadline_ms_ - snbf_plat_ticks_ms());
  if (left_ms <= 0) return 0;
  return left_ms < limit_ms ? static_cast<u32>(left_ms) : limit_ms;
}

// A parked write that goes on is known to the queue or to the tracker before it counts as parked no more, and a held
// one to the tracker before the queue forgets it: so in this order none is missed.
bool QuietPoint::has_parked_writes() const { return filter_.parking.writes.load() != 0; }

bool QuietPoint::has_sent_writes() const {
  return filter_.cowqueue.writes.load() != 0 || snbf_aio_has_writes(&filter_.aio);
}

void QuietPoint::wait_for_writes(u64 until_ms) const {
  while ((has_parked_writes() || has_sent_writes()) && static_cast<s64>(snbf_plat_ticks_ms() - until_ms) < 0)
    snbf_plat_yield();
}

// Requests that were passed on in place when the node had no snaps. It has one now, so that there are
// no new ones. False: the time is up.
bool QuietPoint::drain() const {
  if (!filter_.can_drain || filter_.drained.load() != 0) return true;
  while (filter_.entering.load() != 0) {
    if (is_late()) return false;
    snbf_plat_yield();
  }
  // Nobody can send to the partition's disk meanwhile: so for a moment at first, and longer only since what is queued
  // on a slow disk takes longer. The pause behind an attempt is as long, and the disk stands still half of the
  // time at most. The table's lock, which the caller holds, is no lock that a sender could wait for: it is held for
  // reading.
  u32 limit_ms = kFirstDrainMs;
  while (snbf_plat_bdev_drain(filter_.hdd_bdev, until_deadline(limit_ms)) != 0) {
    snbf_plat_sleep_ms(until_deadline(limit_ms));
    if (is_late()) return false;
    limit_ms = twice(limit_ms);
  }
  filter_.drained.store(1);
  return true;
}

// Holds both locks on success. What is on its way needs no lock of ours to end, so a node that is never
// idle comes to rest while its newcomers wait. For a moment at first, since a copy that is needed for it
// may wait for memory that the newcomers hold; longer where that did not do, for a slow disk takes longer.
bool QuietPoint::try_to_hold() NO_THREAD_SAFETY_ANALYSIS {
  // Held together, so that the node is not stopped at this instant.
  filter_.node_mutex.lock();
  filter_.io_req_cnt.store(0);
  if (!filter_.io_rwlock.write_lock_within(kAttemptMs)) {
    filter_.node_mutex.unlock();
    return false;
  }
  // Of a device that nobody has open there is no file system to come to rest.
  const bool is_stable = !is_open_ || filter_.io_req_cnt.load() == 0;
  // A parked write goes on under io_rwlock, and so not while that is held here; nor is any parked then.
  if (is_stable && !has_parked_writes()) {
    wait_for_writes(snbf_plat_ticks_ms() + until_deadline(rest_ms_));
    if (!has_sent_writes()) return true;
    rest_ms_ = twice(rest_ms_);
  }
  filter_.io_rwlock.write_unlock();
  filter_.node_mutex.unlock();
  return false;
}

int QuietPoint::reach() {
  deadline_ms_ = snbf_plat_ticks_ms() + kLimitMs;
  rest_ms_ = kFirstRestMs;
  const int minor = static_cast<int>(filter_.minor);
  const bool is_drained = drain();
  if (is_drained) {
    freeze();
    deadline_ms_ = snbf_plat_ticks_ms() + kLimitMs;
  }
  while (is_drained) {
    // At first no request is kept out, for a copy may take long. Of a node without a file system, or with one
    // that cannot be frozen, newcomers never end: so that is not waited for longer than they are kept out then.
    wait_for_writes(snbf_plat_ticks_ms() + until_deadline(rest_ms_));
    if (try_to_hold()) {
      is_held_ = true;
      return 0;
    }
    if (is_late()) break;
    snbf_log(4, "%s(): Waiting for FS on snbf(%d, %d) (%s) to stabilize...", kOrigin,
             snbf_blk_major, minor, filter_.hdd_name);
    snbf_plat_yield();
  }
  snbf_log(kLogError, "%s(): Timed out waiting for FS on snbf(%d, %d) (%s) to stabilize.", kOrigin,
           snbf_blk_major, minor, filter_.hdd_name);
  return -EAGAIN;
}

void QuietPoint::freeze() {
  plat_bdev* bdev;
  {
    KsMutexGuard life{filter_.node_mutex};
    bdev = filter_.bdev;
  }
  if (bdev == nullptr) return;
  is_open_ = true;
  // One that is frozen by hand already is quiet as it is, and not ours to thaw.
  if (snbf_plat_bdev_freeze(bdev) == 0) frozen_ = bdev;
}

}  // namespace snbf
