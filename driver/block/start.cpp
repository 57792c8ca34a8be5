// SPDX-License-Identifier: GPL-2.0-only
#include "block/start.h"

#include "base/errno.h"
#include "core/log.h"
#include "snap/snapstart.h"

using snbf::kLogError;

namespace snbf {

namespace {

bool must_go_behind(const Node* node) {
  if (node == nullptr || node->dev_type != kSnapNode || node->started.load() != 0) return false;
  return is_overtaken(as_snap(*node));
}

// An image that begins now is newer than that of every snap which is started: it reads none of their
// copies, and they may read its own. So such a snap goes to the end of its filter's list.
void put_in_order(u32 minor) {
  {
    KsReadGuard table{snbf_blkdev_rwlock};
    if (!must_go_behind(find_node(minor))) return;
  }
  TableWriteGuard table;
  Node* node = find_node(minor);
  if (!must_go_behind(node)) return;
  SnapNode& snap = as_snap(*node);
  snap.filter_node->snaps.remove(&snap);
  snap.filter_node->snaps.push_back(&snap);
}

// node_mutex is held.
int start_node(Node& node) {
  // The bitmaps of a filter node are in memory since its creation: there is nothing to prepare.
  if (node.dev_type == kFilterNode) node.started.store(1);
  return node.dev_type == kSnapNode ? start_snap(as_snap(node)) : 0;
}

}  // namespace

}  // namespace snbf

int snbf_ioctl_start_node(snbf_minor_cmd& record) {
  constexpr const char* kOrigin = "snbf_ioctl_start_node";
  const int minor = static_cast<int>(record.minor);
  snbf_log(1, "%s(): Starting snbf(%d, %d)", kOrigin, snbf_blk_major, minor);
  for (;;) {
    snbf::put_in_order(record.minor);
    snbf::KsReadGuard table{snbf_blkdev_rwlock};
    snbf::Node* node = snbf::find_node(record.minor);
    if (node == nullptr) {
      snbf_log(kLogError, "%s(): Nothing is known about snbf(%d, %d)", kOrigin, snbf_blk_major,
               minor);
      return -EINVAL;
    }
    if (int rc = snbf_block_start_device(*node); rc != snbf::kStartAgain) return rc;
  }
}

int snbf_block_start_device(snbf::Node& node) {
  constexpr const char* kOrigin = "snbf_block_start_device";
  const int minor = static_cast<int>(node.minor);
  snbf_log(2, "%s(): Starting snbf(%d, %d)", kOrigin, snbf_blk_major, minor);
  int rc = -EALREADY;
  {
    snbf::KsMutexGuard life{node.node_mutex};
    if (node.started.load() == 0) rc = snbf::start_node(node);
    if (rc == 0) {
      snbf_log(3, "%s(): snbf(%d, %d) has been started successfully", kOrigin, snbf_blk_major,
               minor);
    }
  }
  if (rc == -EALREADY) {
    snbf_log(kLogError, "%s(): snbf(%d, %d) has already been started", kOrigin, snbf_blk_major,
             minor);
  }
  if (rc == 0 && node.dev_type == snbf::kSnapNode) snbf::read_block_map(snbf::as_snap(node));
  return rc;
}
