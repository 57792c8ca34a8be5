// SPDX-License-Identifier: GPL-2.0-only
#include "block/stop.h"

#include "base/errno.h"
#include "core/log.h"
#include "filter/bmpfile.h"
#include "snap/snapstart.h"

using snbf::kLogError;

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_block_stop_device";

using Snaps = List<SnapNode, BySnapOrder>;

constexpr u32 kTwoPasses = 6;  // each raises the count twice; the first may have been under way

// Takes the node_mutex of a snap that is started; false: it is not. A start holds that mutex while it waits
// for the filter's, which may be held here, so the holder is not waited for: the snap that he starts cannot
// become started meanwhile.
bool lock_if_started(SnapNode& snap) TRY_ACQUIRE(true, snap.node_mutex) {
  while (snap.started.load() != 0) {
    if (!snap.node_mutex.try_lock()) {
      snbf_plat_yield();
      continue;
    }
    if (snap.started.load() != 0) return true;
    snap.node_mutex.unlock();
  }
  return false;
}

// Oldest first. The first that refuses ends it.
int stop_snaps(FilterNode& filter) {
  for (SnapNode* snap = filter.snaps.first(); snap != nullptr; snap = Snaps::next(snap)) {
    if (!lock_if_started(*snap)) continue;
    const int rc = snbf_block_stop_device(*snap);
    snap->node_mutex.unlock();
    if (rc != 0) return rc;
  }
  return 0;
}

// node_mutex is held, and nobody has the device open: no write comes between the save and the end.
int stop_filter(FilterNode& filter) {
  if (int rc = stop_snaps(filter); rc != 0) return rc;
  // They may need the COW thread, and they change what is saved. No limit of its own: whoever sent
  // such a write waits for it, and a stop that went on would fail it. Each leaves kFlagLimitMs after
  // it was parked at the latest, nobody parks a new one any more, and what then holds it up is the
  // partition alone: a deletion waits for that as well.
  while (!wait_for_parked(filter, kFlagLimitMs)) {
  }
  snbf_cowthread_shutdown(&filter.cowthread);
  {
    // Who raises flags for what lies on this node finds it started, and its files not saved yet, or neither.
    KsMutexGuard file_work{filter.bmp_mutex};
    // What cannot be saved now stays marked as dirty.
    snbf_block_save_dirty_bmps(filter);
    filter.started.store(0);
  }
  wake_parking(filter);
  return 0;
}

bool has_older_started(const SnapNode& snap) {
  for (const SnapNode* older = Snaps::prev(&snap); older != nullptr; older = Snaps::prev(older)) {
    if (older->started.load() != 0) return true;
  }
  return false;
}

// Waits until the request that was at the head, if any, is no longer there. Its record may have come back
// there with another request; two whole passes later it is another one for certain.
void wait_for_head(FilterNode& filter) {
  CowQueue& queue = filter.cowqueue;
  const auto head = [&queue] {
    SpinGuard hold{queue.lock};
    return queue.requests.first();
  };
  const u32 pass = filter.cowthread.pass.load();
  const CowRequest* const noted = head();
  while (noted != nullptr && head() == noted && filter.cowthread.pass.load() - pass < kTwoPasses) {
    snbf_plat_yield();
  }
}

// A COW thread that is at work may have found the snap started before it was not: its pass ends.
void wait_for_pass(const CowThread& thread) {
  const u32 noted = thread.pass.load();
  while (noted % 2 != 0 && thread.pass.load() == noted) snbf_plat_yield();
}

void end_snap(SnapNode& snap) {
  FilterNode& filter = *snap.filter_node;
  {
    // Whoever was routed with the snap in sight has left, and nobody sees it any more.
    KsWriteGuard drained{filter.io_rwlock};
    snap.stop_pending.store(0);
    snap.started.store(0);
  }
  wait_for_head(filter);
  wait_for_pass(filter.cowthread);
  drop_snap_resources(snap);
}

// Whether the stop was postponed: an older snap reads this one's copies. node_mutex is held.
bool stop_or_postpone(SnapNode& snap) {
  if (has_older_started(snap)) {
    snap.stop_pending.store(1);
    // The older one may have been stopped in between, and have seen nothing pending yet.
    if (has_older_started(snap)) return true;
  }
  end_snap(snap);
  return false;
}

// Null unless the next started snap is one whose stop was postponed.
SnapNode* next_pending(SnapNode& snap) {
  SnapNode* newer = Snaps::next(&snap);
  while (newer != nullptr && newer->started.load() == 0) newer = Snaps::next(newer);
  return newer != nullptr && newer->stop_pending.load() != 0 ? newer : nullptr;
}

void log_stopping(const Node& node) {
  snbf_log(2, "%s(): Stopping snbf(%d, %d)", kOrigin, snbf_blk_major, static_cast<int>(node.minor));
}

void log_stopped(const Node& node) {
  snbf_log(3, "%s(): snbf(%d, %d) has been stopped successfully", kOrigin, snbf_blk_major,
           static_cast<int>(node.minor));
}

void log_postponed(const Node& node) {
  snbf_log(1,
           "%s(): Postponing stop of snbf(%d, %d), since there are other snaps depending on this one.",
           kOrigin, snbf_blk_major, static_cast<int>(node.minor));
}

void log_outcome(const Node& node, bool postponed) {
  postponed ? log_postponed(node) : log_stopped(node);
}

bool is_in_use(const Node& node) {
  if (node.use_cnt.load() == 0) return false;
  snbf_log(kLogError, "%s(): snbf(%d, %d) is still being used.", kOrigin, snbf_blk_major,
           static_cast<int>(node.minor));
  return true;
}

// Of those whose stop was postponed, the next in line, and so on, each inside the stop of the one before
// it. A loop, for there may be 256 of them and the stack is small.
void stop_pending_behind(SnapNode& first) {
  for (SnapNode* snap = next_pending(first); snap != nullptr; snap = next_pending(*snap)) {
    log_stopping(*snap);
    if (!lock_if_started(*snap)) continue;
    const bool is_busy = is_in_use(*snap);
    if (!is_busy) log_outcome(*snap, stop_or_postpone(*snap));
    snap->node_mutex.unlock();
    if (is_busy) return;
  }
}

// Whether the stop was postponed.
bool stop_snap(SnapNode& snap) {
  if (snap.filter_node == nullptr) return false;  // Kept: one that is detached stays started.
  const bool postponed = stop_or_postpone(snap);
  stop_pending_behind(snap);
  return postponed;
}

}  // namespace

}  // namespace snbf

int snbf_ioctl_stop_node(snbf_minor_cmd& record) {
  constexpr const char* kOrigin = "snbf_ioctl_stop_node";
  const int minor = static_cast<int>(record.minor);
  snbf_log(1, "%s(): Stopping snbf(%d, %d)", kOrigin, snbf_blk_major, minor);
  snbf::KsReadGuard table{snbf_blkdev_rwlock};
  snbf::Node* node = snbf::find_node(record.minor);
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Nothing is known about snbf(%d, %d)", kOrigin, snbf_blk_major,
             minor);
    return -EINVAL;
  }
  return snbf_block_stop_device(*node);
}

int snbf_block_stop_device(snbf::Node& node) {
  snbf::log_stopping(node);
  snbf::KsMutexGuard life{node.node_mutex};
  if (node.started.load() == 0) return 0;
  if (snbf::is_in_use(node)) return -EBUSY;
  if (node.dev_type == snbf::kFilterNode) {
    if (int rc = snbf::stop_filter(snbf::as_filter(node)); rc != 0) return rc;
  }
  const bool is_snap = node.dev_type == snbf::kSnapNode;
  snbf::log_outcome(node, is_snap && snbf::stop_snap(snbf::as_snap(node)));
  return 0;
}
