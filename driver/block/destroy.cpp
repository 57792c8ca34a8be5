// SPDX-License-Identifier: GPL-2.0-only
#include "block/destroy.h"

#include "base/errno.h"
#include "block/entry.h"
#include "block/stop.h"
#include "control/proc.h"
#include "core/log.h"
#include "core/params.h"
#include "filter/kdirtyd.h"
#include "platform/memory.h"
#include "util/bdev.h"
#include "util/path.h"

using snbf::kLogError;

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_block_destroy_device";
constexpr const char* kDelNode = "snbf_ioctl_del_node";
constexpr int kDirtyRequestsSeconds = 10;
constexpr u64 kHeldWritesLimitMs = 10000;

// May the node go? 0 with `postponed` set: not now, and that is no error.
int judge_destruction(Node& node, bool& postponed) {
  const int minor = static_cast<int>(node.minor);
  snbf_log(1, "%s(): Destroying snbf(%d, %d)", kOrigin, snbf_blk_major, minor);
  postponed = false;
  if (node.use_cnt.load() != 0) {
    // Kept: no blank before "is".
    snbf_log(kLogError, "%s(): snbf(%d, %d)is still being used.", kOrigin, snbf_blk_major, minor);
    return -EBUSY;
  }
  if (node.started.load() == 0) return 0;
  if (node.dev_type == kSnapNode && as_snap(node).stop_pending.load() != 0) {
    snbf_log(1, "%s(): STOP is pending for snbf(%d, %d). Postponing delete as well.", kOrigin,
             snbf_blk_major, minor);
    as_snap(node).del_pending.store(1);
    postponed = true;
    return 0;
  }
  snbf_log(kLogError, "%s(): Can't destroy started snbf(%d, %d). Stop it first!", kOrigin,
           snbf_blk_major, minor);
  return -EBUSY;
}

void take_out_of_table(Node& node, int remove_files, DoomedNodes& doomed)
    REQUIRES(snbf_blkdev_rwlock) {
  node.remove_files = remove_files;
  snbf_blkdev_arr[node.minor] = nullptr;
  doomed.push_back(&node);
}

int destroy_filter(FilterNode& filter, int remove_files, DoomedNodes& doomed)
    REQUIRES(lifecycle_mutex, snbf_blkdev_rwlock) {
  while (SnapNode* snap = filter.snaps.first()) {
    snbf_log(3, "%s(): Deleting associated snap snbf(%d, %d)", kOrigin, snbf_blk_major,
             static_cast<int>(snap->minor));
    if (int rc = snbf_block_destroy_device(snap, remove_files, doomed); rc != 0) return rc;
    // Its delete was postponed, and so it still needs its filter.
    if (filter.snaps.first() == snap) return -EBUSY;
  }
  take_out_of_table(filter, remove_files, doomed);
  return 0;
}

void destroy_snap(SnapNode& snap, int remove_files, DoomedNodes& doomed)
    REQUIRES(lifecycle_mutex, snbf_blkdev_rwlock) {
  FilterNode* filter = snap.filter_node;
  SnapNode* next = &snap;
  // A chain of postponed deletes is worked off from the oldest end, as far as it goes. There may be
  // 256 of them: a loop, for the stack is small.
  do {
    if (filter != nullptr) filter->snaps.remove(next);
    take_out_of_table(*next, remove_files, doomed);
    next = filter == nullptr ? nullptr : filter->snaps.first();
    bool postponed;
    if (next == nullptr || next->del_pending.load() == 0) return;
    if (judge_destruction(*next, postponed) != 0 || postponed) return;
  } while (true);
}

void take_apart_filter(FilterNode& filter) {
  snbf_plat_virt_free(filter.incr_bmp);
  snbf_plat_virt_free(filter.diff_bmp);
  snbf_close_bdev(filter.hdd_bdev, PLAT_OPEN_EXCLUSIVE, PLAT_MODE_READ | PLAT_MODE_WRITE, &filter);
}

void take_apart_node(Node& node) {
  const int minor = static_cast<int>(node.minor);
  const bool is_filter = node.dev_type == kFilterNode;
  if (is_filter) {
    FilterNode& filter = as_filter(node);
    end_parking(filter);
    while (filter.entering.load() != 0) snbf_plat_yield();
    snbf_cowqueue_destroy(&filter.cowqueue);
    snbf_aio_destroy(&filter.aio);
    if (snbf_yield_to_dirty_requests(filter, kDirtyRequestsSeconds) != 0) {
      // Nothing more is written for this node; a write that hangs keeps the record until it comes back.
      snbf_kill_dirty_requests(filter, SNBF_BMP_INCR);
      snbf_kill_dirty_requests(filter, SNBF_BMP_DIFF);
    }
  } else if (node.remove_files != 0) {
    snbf_unlink(as_snap(node).cow_data_fname);
    snbf_unlink(as_snap(node).cow_bmp_fname);
  }
  if (node.dev_name[0] != '\0') snbf_unlink(node.dev_name);
  snbf_proc_del_device(node);
  if (is_filter) take_apart_filter(as_filter(node));
  if (node.disk != nullptr) {
    snbf_plat_disk_del(node.disk);
    snbf_plat_disk_put(node.disk);
  }
  if (is_filter) {
    put_filter_node(as_filter(node));
  } else {
    snbf_plat_heap_free(&as_snap(node));
  }
  snbf_log(3, "%s(): snbf(%d, %d) has been destroyed successfully", kOrigin, snbf_blk_major, minor);
}

int stop_all_nodes() {
  KsReadGuard table{snbf_blkdev_rwlock};
  if (snbf_blkdev_arr == nullptr) return 0;
  for (u32 minor = 0; is_minor_in_table(minor); ++minor) {
    Node* node = snbf_blkdev_arr[minor];
    if (node == nullptr || node->started.load() == 0) continue;
    if (int rc = snbf_block_stop_device(*node); rc != 0) return rc;
  }
  return 0;
}

int destroy_all_nodes(DoomedNodes& doomed) REQUIRES(lifecycle_mutex) {
  TableWriteGuard table;
  if (snbf_blkdev_arr == nullptr) return 0;
  for (u32 minor = 0; is_minor_in_table(minor); ++minor) {
    Node* node = snbf_blkdev_arr[minor];
    if (node == nullptr) continue;
    if (int rc = snbf_block_destroy_device(node, 0, doomed); rc != 0) return rc;
    if (snbf_blkdev_arr[minor] == node) return -EBUSY;  // postponed: the table cannot go yet
  }
  return 0;
}

int nothing_is_known(u32 minor) {
  snbf_log(kLogError, "%s(): Nothing is known about snbf(%d, %d)", kDelNode, snbf_blk_major,
           static_cast<int>(minor));
  return -EINVAL;
}

// Whether writes are still held on a filter none of whose snaps is started: the next pass lets them go. (Not only for
// the last snap: those whose deletion was postponed go with an older one.)
bool has_needless_holds(const Node& node) REQUIRES_SHARED(snbf_blkdev_rwlock) {
  const FilterNode* filter = node.dev_type == kSnapNode ? as_snap(node).filter_node : nullptr;
  if (filter == nullptr || filter->cowthread.pid.load() == 0 || filter->cowqueue.length() == 0) {
    return false;
  }
  const SnapNode* snap = filter->snaps.first();
  while (snap != nullptr && snap->started.load() == 0) {
    snap = List<SnapNode, BySnapOrder>::next(snap);
  }
  return snap == nullptr;
}

void wait_for_holds(u32 minor, u64 deadline_ms) REQUIRES(lifecycle_mutex) {
  const auto must_wait = [minor] {
    KsReadGuard table{snbf_blkdev_rwlock};
    const Node* node = find_node(minor);
    return node != nullptr && has_needless_holds(*node);
  };
  while (must_wait() && snbf_plat_ticks_ms() < deadline_ms) snbf_plat_yield();
}

// Without snaps nobody looks at the queue any more, and a later write would overtake those in it. While the table is
// held nobody queues or sends one, so it is asked then; false: the caller asks again, with the table released.
bool destroy_behind_holds(u32 minor, u64 deadline_ms, DoomedNodes& doomed, int& rc)
    REQUIRES(lifecycle_mutex) {
  TableWriteGuard table;
  Node* node = find_node(minor);
  if (node == nullptr) {
    rc = nothing_is_known(minor);
    return true;
  }
  // Whoever writes to one place without a pause may keep the queue from ever being empty.
  if (has_needless_holds(*node) && snbf_plat_ticks_ms() < deadline_ms) return false;
  rc = snbf_block_destroy_device(node, 1, doomed);
  return true;
}

}  // namespace

void take_apart(DoomedNodes& doomed) {
  while (Node* node = doomed.pop_front()) take_apart_node(*node);
}

}  // namespace snbf

int snbf_ioctl_del_node(snbf_minor_cmd& record) {
  snbf_log(1, "%s(): Removing snbf(%d, %d)", snbf::kDelNode, snbf_blk_major,
           static_cast<int>(record.minor));
  snbf::KsMutexGuard life{snbf::lifecycle_mutex};
  {
    snbf::KsReadGuard table{snbf_blkdev_rwlock};
    snbf::Node* node = snbf::find_node(record.minor);
    if (node == nullptr) return snbf::nothing_is_known(record.minor);
    if (int rc = snbf_block_stop_device(*node); rc != 0) return rc;
  }
  snbf::DoomedNodes doomed;
  int rc = 0;
  const snbf::u64 deadline_ms = snbf_plat_ticks_ms() + snbf::kHeldWritesLimitMs;
  do {
    snbf::wait_for_holds(record.minor, deadline_ms);
  } while (!snbf::destroy_behind_holds(record.minor, deadline_ms, doomed, rc));
  snbf::take_apart(doomed);
  return rc;
}

int snbf_block_destroy_device(snbf::Node* node, int remove_files, snbf::DoomedNodes& doomed) {
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Internal error: dev==NULL", snbf::kOrigin);
    return -EINVAL;
  }
  bool postponed;
  if (int rc = snbf::judge_destruction(*node, postponed); rc != 0 || postponed) return rc;
  if (node->dev_type == snbf::kFilterNode) {
    return snbf::destroy_filter(snbf::as_filter(*node), remove_files, doomed);
  }
  snbf::destroy_snap(snbf::as_snap(*node), remove_files, doomed);
  return 0;
}

int snbf_block_destroy() {
  constexpr const char* kOrigin = "snbf_block_destroy";
  snbf::KsMutexGuard life{snbf::lifecycle_mutex};
  snbf_log(2, "%s(): Stopping all minor nodes", kOrigin);
  if (int rc = snbf::stop_all_nodes(); rc != 0) return rc;
  snbf_log(2, "%s(): Destroying all minor nodes", kOrigin);
  snbf::DoomedNodes doomed;
  const int rc = snbf::destroy_all_nodes(doomed);
  snbf::take_apart(doomed);
  if (rc != 0) return rc;
  snbf_block_fini();
  snbf_stop_kdirtyd();
  snbf::wait_for_parking_threads();
  return 0;
}
