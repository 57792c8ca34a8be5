// SPDX-License-Identifier: GPL-2.0-only
#include "block/start.h"

#include "base/errno.h"
#include "core/log.h"

using snbf::kLogError;

int snbf_ioctl_start_node(snbf_minor_cmd& record) {
  constexpr const char* kOrigin = "snbf_ioctl_start_node";
  const int minor = static_cast<int>(record.minor);
  snbf_log(1, "%s(): Starting snbf(%d, %d)", kOrigin, snbf_blk_major, minor);
  snbf::KsReadGuard table{snbf_blkdev_rwlock};
  snbf::Node* node = snbf::find_node(record.minor);
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Nothing is known about snbf(%d, %d)", kOrigin, snbf_blk_major,
             minor);
    return -EINVAL;
  }
  return snbf_block_start_device(*node);
}

int snbf_block_start_device(snbf::Node& node) {
  constexpr const char* kOrigin = "snbf_block_start_device";
  const int minor = static_cast<int>(node.minor);
  snbf_log(2, "%s(): Starting snbf(%d, %d)", kOrigin, snbf_blk_major, minor);
  {
    snbf::KsMutexGuard life{node.node_mutex};
    if (node.started.load() == 0) {
      // The bitmaps of a filter node are in memory since its creation: there is nothing else to
      // prepare.
      if (node.dev_type == snbf::kFilterNode) node.started.store(1);
      snbf_log(3, "%s(): snbf(%d, %d) has been started successfully", kOrigin, snbf_blk_major,
               minor);
      return 0;
    }
  }
  snbf_log(kLogError, "%s(): snbf(%d, %d) has already been started", kOrigin, snbf_blk_major,
           minor);
  return -EALREADY;
}
