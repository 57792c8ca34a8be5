// SPDX-License-Identifier: GPL-2.0-only
#include "snap/resume.h"

#include "base/errno.h"
#include "block/node.h"
#include "block/start.h"
#include "core/log.h"
#include "snap/invalidate.h"
#include "snap/snapstart.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_ioctl_resume_snap";
constexpr int kReopenFlags = PLAT_O_RDWR | PLAT_O_SYNC | PLAT_O_LARGEFILE;
constexpr int kFileMode = 0600;

int reopen(SnapNode& snap) {
  snap.cow_data_file = snbf_fopen(snap.cow_data_fname, kReopenFlags, kFileMode);
  if (snap.cow_data_file == nullptr) return -EIO;
  if (int rc = snbf_cowbmp_init(&snap.cow_bmp, snap.chunk_cnt); rc != 0) return rc;
  if (int rc = snbf_cowbmp_load(&snap.cow_bmp, snap.cow_bmp_fname); rc != 0) return rc;
  snap.cow_bmp_file = snbf_fopen(snap.cow_bmp_fname, kReopenFlags, kFileMode);
  return snap.cow_bmp_file == nullptr ? -EIO : 0;
}

// A snap that was given up has an empty data file: its bits promise what is not there any more.
int judge_files(const SnapNode& snap) {
  const u64 data_size = snbf_plat_file_size(snap.cow_data_file->filp);
  if (data_size >= snap.cow_data_size && snap.cow_bmp.nbits >= snap.chunk_cnt) return 0;
  snbf_log(kLogError, "%s(): The COW files of snbf(%d, %d) are too short for a valid image.", kOrigin,
           snbf_blk_major, static_cast<int>(snap.minor));
  return -EIO;
}

// Whether a newer snap is started and invalid: writes are held for none of the older ones then.
bool is_below_invalid(const SnapNode& snap) {
  using Snaps = List<SnapNode, BySnapOrder>;
  for (const SnapNode* newer = Snaps::next(&snap); newer != nullptr; newer = Snaps::next(newer)) {
    if (newer->started.load() != 0 && newer->snap_valid.load() == 0) return true;
  }
  return false;
}

// The states as the agent recorded them; they are not checked.
void restore_states(SnapNode& snap, const snbf_resume_cmd& record) {
  FilterNode& filter = *snap.filter_node;
  // No request sees one of them without the others.
  KsWriteGuard drained{filter.io_rwlock};
  snap.truncation_due.store(0);
  snap.snap_valid.store(static_cast<int>(record.snap_valid));
  snap.stop_pending.store(static_cast<int>(record.stop_pending));
  snap.del_pending.store(static_cast<int>(record.del_pending));
  snap.started.store(1);
  // Nobody would serve the writes that are held back, or none would be held; and an image that is broken
  // takes the older ones with it, as ever.
  const bool is_served = filter.cowthread.pid.load() != 0 && !is_below_invalid(snap);
  if (!is_served || record.snap_valid == 0) invalidate_snaps_without_files(snap);
}

// node_mutex is held.
int resume(SnapNode& snap, const snbf_resume_cmd& record) {
  FilterNode& filter = *snap.filter_node;
  int rc = start_below(filter).error();
  if (rc == 0) rc = reopen(snap);
  if (rc == 0 && record.snap_valid != 0) rc = judge_files(snap);
  if (rc == 0) rc = snbf_blkbmp_init(&snap.blkbmp);
  if (rc == 0) {
    // Again, and with the mutex kept: the filter may have been stopped in between.
    KsMutexGuard life{filter.node_mutex};
    rc = start_below(filter).error();
    if (rc == 0) restore_states(snap, record);
  }
  if (rc != 0) drop_snap_resources(snap);
  return rc;
}

// What the command refuses to resume: a negative error; else 0.
int judge(const Node* node, int minor) {
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Nothing is known about snbf(%d, %d)", kOrigin, snbf_blk_major,
             minor);
    return -EINVAL;
  }
  if (node->dev_type != kSnapNode) {
    snbf_log(kLogError, "%s(): snbf(%d, %d) is not a snap device", kOrigin, snbf_blk_major, minor);
    return -EINVAL;
  }
  if (node->started.load() != 0) {
    snbf_log(kLogError, "%s(): Can't resume snap snbf(%d, %d): it's been started already.", kOrigin,
             snbf_blk_major, minor);
    return -EALREADY;
  }
  return 0;
}

}  // namespace

}  // namespace snbf

int snbf_ioctl_resume_snap(snbf_resume_cmd& record) {
  using namespace snbf;
  const int minor = static_cast<int>(record.minor);
  snbf_log(1, "%s(): Resuming snap snbf(%d, %d)", kOrigin, snbf_blk_major, minor);
  KsReadGuard table{snbf_blkdev_rwlock};
  Node* node = find_node(record.minor);
  if (int rc = judge(node, minor); rc != 0) {
    table.leave_held();  // Kept: these returns leave the table locked.
    return rc;
  }
  SnapNode& snap = as_snap(*node);
  {
    KsMutexGuard life{snap.node_mutex};
    // Somebody else may have started it since.
    const int rc = snap.started.load() != 0 ? -EALREADY : resume(snap, record);
    if (rc != 0) return rc;
  }
  // Through the image and not the partition, which goes on changing.
  read_block_map(snap);
  snbf_log(2, "%s(): snbf(%d, %d) has been resumed successfully", kOrigin, snbf_blk_major, minor);
  return 0;
}
