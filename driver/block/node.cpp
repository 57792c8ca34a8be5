// SPDX-License-Identifier: GPL-2.0-only
#include "block/node.h"

#include "core/params.h"
#include "platform/memory.h"

constinit snbf::Node** snbf_blkdev_arr = nullptr;
constinit snbf::KsRwLock snbf_blkdev_rwlock;

namespace snbf {

constinit KsMutex lifecycle_mutex;

Node* find_node(u32 minor) {
  if (snbf_blkdev_arr == nullptr || !is_minor_in_table(minor)) return nullptr;
  return snbf_blkdev_arr[minor];
}

void put_filter_node(FilterNode& node) {
  if (node.holders.fetch_sub(1) == 1) snbf_plat_heap_free(&node);
}

void init_table_locks() {
  lifecycle_mutex.init();
  snbf_blkdev_rwlock.init();
}

TableWriteGuard::TableWriteGuard() NO_THREAD_SAFETY_ANALYSIS : noio_state_(snbf_plat_noio_begin()) {
  snbf_blkdev_rwlock.write_lock();
}

TableWriteGuard::~TableWriteGuard() NO_THREAD_SAFETY_ANALYSIS {
  if (!is_left_held_) snbf_blkdev_rwlock.write_unlock();
  snbf_plat_noio_end(noio_state_);
}

}  // namespace snbf
