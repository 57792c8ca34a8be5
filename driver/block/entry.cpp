// SPDX-License-Identifier: GPL-2.0-only
#include "block/entry.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "block/node.h"
#include "core/log.h"
#include "filter/bmpfile.h"
#include "filter/kdirtyd.h"
#include "platform/memory.h"

using snbf::kLogError;

namespace snbf {

namespace {

constexpr char kDriverName[] = "snbf";
constinit int registered = 0;

struct IoctlName {
  u32 number;
  const char* name;
};

// For the log line only.
constexpr IoctlName kIoctlNames[] = {
    {0x125D, "BLKROSET"},      {0x125E, "BLKROGET"}, {0x1260, "BLKGETSIZE"},
    {0x1261, "BLKFLSBUF"},     {0x1262, "BLKRASET"}, {0x1263, "BLKRAGET"},
    {0x1268, "BLKSSZGET"},     {0x1269, "BLKPG"},    {0x80081270, "BLKBSZGET"},
    {0x40081271, "BLKBSZSET"},
};

const char* ioctl_name(u32 number) {
  for (const IoctlName& known : kIoctlNames) {
    if (known.number == number) return known.name;
  }
  return "UNKNOWN";
}

constexpr u32 ioctl_direction(u32 number) { return number >> 30; }
constexpr u32 ioctl_bytes(u32 number) { return number >> 16 & 0x3fff; }

// The table's lock is held for reading.
int open_node(Node& node, plat_bdev* bdev) {
  constexpr const char* kOrigin = "snbf_block_open";
  KsMutexGuard life{node.node_mutex};
  if (node.started.load() == 0) {
    snbf_log(kLogError, "%s(): snbf(%d, %d) hasn't been started yet.", kOrigin, snbf_blk_major,
             static_cast<int>(node.minor));
    return -EIO;
  }
  node.use_cnt.fetch_add(1);
  node.bdev = bdev;
  snbf_log(3, "%s(): bdev=%p", kOrigin, static_cast<void*>(bdev));
  return 0;
}

// The table's lock is held for reading. Answers whether that was the last opening.
bool release_node(Node& node) {
  KsMutexGuard life{node.node_mutex};
  if (node.use_cnt.fetch_sub(1) != 1) return false;
  node.bdev = nullptr;
  return true;
}

void save_dirty_bitmaps(void* node) { snbf_block_save_dirty_bmps(*static_cast<FilterNode*>(node)); }

// The filter that serves the node's ioctls; null when it has none.
FilterNode* serving_filter(Node& node) {
  if (node.dev_type == kFilterNode) return &as_filter(node);
  if (node.dev_type != kSnapNode) return nullptr;
  FilterNode* filter = as_snap(node).filter_node;
  return filter != nullptr && filter->dev_type == kFilterNode ? filter : nullptr;
}

}  // namespace

}  // namespace snbf

int snbf_block_init() {
  constexpr const char* kOrigin = "snbf_block_init";
  snbf_log(2, "%s(): Initializing block device", kOrigin);
  const int rc = snbf_plat_blkdev_register(snbf_blk_major, snbf::kDriverName);
  if (rc < 0) {
    snbf_log(kLogError, "%s(): Failed to register block device: rc=%d.", kOrigin, rc);
    return rc;
  }
  if (snbf_blk_major == 0) snbf_blk_major = rc;
  snbf_log(2, "%s(): snbf_blk_major=%d", kOrigin, snbf_blk_major);
  snbf::registered = 1;

  const size_t slots = static_cast<size_t>(snbf_max_blk_minor) + 1;
  auto** table = static_cast<snbf::Node**>(snbf_plat_virt_alloc(slots * sizeof(snbf::Node*)));
  if (table == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  if (int error = snbf_start_kdirtyd(); error != 0) {
    snbf_plat_virt_free(table);
    return error;
  }
  // Last: the control device may be there already, and a command be waiting to add a node.
  snbf::TableWriteGuard guard;
  snbf_blkdev_arr = table;
  return 0;
}

void snbf_block_fini() {
  snbf::Node** table;
  {
    snbf::TableWriteGuard guard;
    table = snbf_blkdev_arr;
    snbf_blkdev_arr = nullptr;
  }
  snbf_plat_virt_free(table);
  if (!snbf::registered) return;
  snbf_log(2, "%s(): Unregistering block device driver", "snbf_block_destroy");
  snbf_plat_blkdev_unregister(snbf_blk_major, snbf::kDriverName);
  snbf::registered = 0;
}

extern "C" int snbf_block_open(plat_bdev* bdev, plat_devt device) {
  constexpr const char* kOrigin = "snbf_block_open";
  const snbf::u32 minor = snbf::dev_minor(device);
  snbf_log(2, "%s(): Opening snbf(%d, %d)", kOrigin, snbf_blk_major, static_cast<int>(minor));
  // So no opening begins while the module is going, and the unload finds no node in use.
  if (!snbf_plat_module_get()) return -ENXIO;
  snbf::ScopeExit drop_module{[] { snbf_plat_module_put(); }};
  snbf::KsReadGuard table{snbf_blkdev_rwlock};
  snbf::Node* node = snbf::find_node(minor);
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Unable to find snbf(%d, %d)", kOrigin, snbf_blk_major,
             static_cast<int>(minor));
    return -EINVAL;
  }
  if (int rc = snbf::open_node(*node, bdev); rc != 0) return rc;
  drop_module.dismiss();
  return 0;
}

extern "C" int snbf_block_release(plat_devt device) {
  constexpr const char* kOrigin = "snbf_block_release";
  const snbf::u32 minor = snbf::dev_minor(device);
  snbf_log(2, "%s(): Releasing snbf(%d, %d)", kOrigin, snbf_blk_major, static_cast<int>(minor));
  snbf::KsReadGuard table{snbf_blkdev_rwlock};
  snbf::Node* node = snbf::find_node(minor);
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Unable to find snbf(%d, %d)", kOrigin, snbf_blk_major,
             static_cast<int>(minor));
    return -EINVAL;
  }
  const bool was_last = snbf::release_node(*node);
  // Behind node_mutex: the files may lie on another node, and saving them takes its time. The
  // table's lock, held for reading, keeps the node, and holds back none of the requests that the
  // files' writes become.
  // By the kernel itself: the last closer may be a process that is exiting, or one that may not write there.
  if (was_last && node->dev_type == snbf::kFilterNode) {
    snbf_plat_run_as_kernel(snbf::save_dirty_bitmaps, &snbf::as_filter(*node));
  }
  snbf_plat_module_put();
  return 0;
}

extern "C" int snbf_block_ioctl(plat_devt device, int mode, unsigned int cmd, unsigned long arg) {
  constexpr const char* kOrigin = "snbf_block_ioctl";
  const snbf::u32 minor = snbf::dev_minor(device);
  snbf::KsReadGuard table{snbf_blkdev_rwlock};
  snbf::Node* node = snbf::find_node(minor);
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Unknown device snbf(%d, %d)", kOrigin, snbf_blk_major,
             static_cast<int>(minor));
    return -EINVAL;
  }
  snbf_log(2, "%s(): cmd=0x%x (%s)", kOrigin, cmd, snbf::ioctl_name(cmd));
  if (snbf::ioctl_direction(cmd) != 0 && !snbf_plat_user_range_ok(arg, snbf::ioctl_bytes(cmd))) {
    return -EFAULT;
  }
  snbf::FilterNode* filter = snbf::serving_filter(*node);
  if (filter == nullptr) {
    snbf_log(kLogError, "%s(): Internal error: fdev==NULL.", kOrigin);
    return -EIO;
  }
  return snbf_plat_bdev_ioctl(filter->hdd_bdev, mode, cmd, arg);
}
