// SPDX-License-Identifier: GPL-2.0-only
#include "block/stop.h"

#include "base/errno.h"
#include "core/log.h"
#include "filter/bmpfile.h"

using snbf::kLogError;

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_block_stop_device";

// Oldest first. The first that refuses ends it.
int stop_snaps(FilterNode& filter) {
  for (SnapNode* snap = filter.snaps.first(); snap != nullptr;
       snap = List<SnapNode, BySnapOrder>::next(snap)) {
    if (snap->started.load() == 0) continue;
    if (int rc = snbf_block_stop_device(*snap); rc != 0) return rc;
  }
  return 0;
}

// node_mutex is held, and nobody has the device open: no write comes between the save and the end.
int stop_filter(FilterNode& filter) {
  if (int rc = stop_snaps(filter); rc != 0) return rc;
  // What cannot be saved now stays marked as dirty.
  snbf_block_save_dirty_bmps(filter);
  filter.started.store(0);
  return 0;
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
  const int minor = static_cast<int>(node.minor);
  snbf_log(2, "%s(): Stopping snbf(%d, %d)", snbf::kOrigin, snbf_blk_major, minor);
  snbf::KsMutexGuard life{node.node_mutex};
  if (node.started.load() == 0) return 0;
  if (node.use_cnt.load() != 0) {
    snbf_log(kLogError, "%s(): snbf(%d, %d) is still being used.", snbf::kOrigin, snbf_blk_major,
             minor);
    return -EBUSY;
  }
  if (node.dev_type == snbf::kFilterNode) {
    if (int rc = snbf::stop_filter(snbf::as_filter(node)); rc != 0) return rc;
  }
  snbf_log(3, "%s(): snbf(%d, %d) has been stopped successfully", snbf::kOrigin, snbf_blk_major,
           minor);
  return 0;
}
