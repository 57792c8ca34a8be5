// SPDX-License-Identifier: GPL-2.0-only
#include "block/create.h"

#include "base/errno.h"
#include "base/result.h"
#include "base/scope_exit.h"
#include "base/string.h"
#include "base/units.h"
#include "block/identity.h"
#include "control/proc.h"
#include "core/log.h"
#include "core/memory.h"
#include "core/params.h"
#include "filter/bmpfile.h"
#include "platform/file.h"
#include "platform/log.h"
#include "platform/task.h"
#include "util/bdev.h"
#include "util/path.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_ioctl_add_filter_node";
constexpr int kHddMode = PLAT_MODE_READ | PLAT_MODE_WRITE;

// Text from outside may lack its terminator.
void bound_texts(snbf_filter_node_cmd& record) {
  record.hdd_name[sizeof(record.hdd_name) - 1] = '\0';
  record.bmp_dir[sizeof(record.bmp_dir) - 1] = '\0';
  record.uuid[sizeof(record.uuid) - 1] = '\0';
  record.name[sizeof(record.name) - 1] = '\0';
}

int refuse_duplicate(plat_devt device) {
  KsReadGuard table{snbf_blkdev_rwlock};
  for (u32 minor = 0; is_minor_in_table(minor); ++minor) {
    const Node* node = find_node(minor);
    if (node == nullptr || node->dev_type != kFilterNode) continue;
    const FilterNode& filter = as_filter(*node);
    if (filter.hdd_dev != device) continue;
    snbf_log(kLogError, "%s(): Found a duplicate snbf%d node going to the same HDD device %s",
             kOrigin, static_cast<int>(minor), filter.hdd_name);
    return -EINVAL;
  }
  return 0;
}

int refuse_unable_to_open(const char* path, plat_devt device) {
  snbf_log(kLogError, "%s(): Unable to open HDD device %s (%d, %d)", kOrigin, path,
           static_cast<int>(dev_major(device)), static_cast<int>(dev_minor(device)));
  return -EINVAL;
}

int refuse_open(const char* path) {
  snbf_log(kLogError, "%s(): Can't attach to an open HDD device %s", kOrigin, path);
  return -EBUSY;
}

int judge_partition(plat_bdev* hdd, const char* path) {
  if (snbf_is_mounted(hdd)) {
    snbf_log(kLogError, "%s(): Can't attach to mounted HDD device %s", kOrigin, path);
    return -EBUSY;
  }
  if (snbf_plat_bdev_openers(hdd) >= 2) return refuse_open(path);
  if (snbf_plat_bdev_is_zoned(hdd)) {
    snbf_log(kLogError, "%s(): Can't attach to zoned HDD device %s", kOrigin, path);
    return -EINVAL;
  }
  return 0;
}

int judge_extent_size(u32 extent_size, u32 block_size) {
  if (!is_power_of_two(extent_size)) {
    snbf_log(kLogError, "%s(): Extent size must be a power of 2", kOrigin);
    return -EINVAL;
  }
  if (extent_size % block_size != 0) {
    snbf_log(kLogError, "%s(): Extent size must be a multiple of block size (%dB)", kOrigin,
             static_cast<int>(block_size));
    return -EINVAL;
  }
  if (extent_size < kPageBytes) {
    snbf_log(kLogError, "%s(): Extent size can't be smaller than page size (%dB)", kOrigin,
             static_cast<int>(kPageBytes));
    return -EINVAL;
  }
  return 0;
}

// The new node, which holds the partition: nothing can mount it underneath any more.
Result<FilterNode*> claim_partition(const snbf_filter_node_cmd& record, plat_devt device) {
  using Claim = Result<FilterNode*>;
  // A shared opening first, to tell who else has the partition; the claim alone would only say that
  // somebody has.
  // For reading: a kernel that refuses writers of a mounted partition must not hide that it is mounted.
  plat_bdev* hdd = snbf_open_bdev(device, PLAT_MODE_READ, PLAT_OPEN_SHARED, nullptr);
  if (hdd == nullptr) return Claim::failure(refuse_unable_to_open(record.hdd_name, device));
  ScopeExit close_shared{[hdd] { snbf_close_bdev(hdd, PLAT_OPEN_SHARED, PLAT_MODE_READ, nullptr); }};
  if (int rc = judge_partition(hdd, record.hdd_name); rc != 0) return Claim::failure(rc);
  if (int rc = judge_extent_size(record.extent_size, snbf_plat_bdev_block_bytes(hdd)); rc != 0) {
    return Claim::failure(rc);
  }
  FilterNode* node = heap_new<FilterNode>(PLAT_ALLOC_NORMAL);
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failure", kOrigin);
    return Claim::failure(-ENOMEM);
  }
  const int rc = snbf_plat_bdev_open(device, kHddMode, PLAT_OPEN_EXCLUSIVE, node, &node->hdd_bdev);
  if (rc != 0) {
    snbf_plat_heap_free(node);
    return Claim::failure(rc == -EBUSY ? refuse_open(record.hdd_name)
                                       : refuse_unable_to_open(record.hdd_name, device));
  }
  node->dev_type = kFilterNode;
  node->hdd_dev = device;
  return node;
}

// The node's helper thread may still hold the record.
void give_partition_back(FilterNode* node) {
  snbf_close_bdev(node->hdd_bdev, PLAT_OPEN_EXCLUSIVE, kHddMode, node);
  put_filter_node(*node);
}

// The record's empty fields are filled on the way: they go back to the caller.
void name_node(FilterNode& node, snbf_filter_node_cmd& record, u32 minor) {
  node.minor = minor;
  record.minor = static_cast<int>(minor);
  snbf_plat_snprintf(node.disk_name, sizeof(node.disk_name), "snbf%d", record.minor);
  if (record.name[0] == '\0') text_copy(record.name, sizeof(record.name), node.disk_name);
  text_copy(node.name, sizeof(node.name), record.name);
  text_copy(node.uuid, sizeof(node.uuid), record.uuid);
  text_copy(node.hdd_name, sizeof(node.hdd_name), record.hdd_name);
  text_copy(node.bmp_dir, sizeof(node.bmp_dir), record.bmp_dir);
  for (size_t length = text_length(node.bmp_dir); length >= 2 && node.bmp_dir[length - 1] == '/';
       --length) {
    node.bmp_dir[length - 1] = '\0';
  }
}

int make_bitmaps(FilterNode& node, u32 extent_size) {
  node.dev_size = snbf_plat_bdev_bytes(node.hdd_bdev);
  node.can_drain = snbf_plat_bdev_can_drain(node.hdd_bdev) != 0;
  node.extent_size = extent_size;
  node.extent_shift = log2_floor(extent_size);
  const u64 extent_cnt = ((node.dev_size - 1) >> node.extent_shift) + 1;
  if (extent_cnt > ~u32{0}) {
    snbf_log(kLogError, "%s(): Too many extents on HDD device %s: extent size %d is too small",
             kOrigin, node.hdd_name, static_cast<int>(extent_size));
    return -EINVAL;
  }
  node.extent_cnt = static_cast<u32>(extent_cnt);
  node.incr_bmp_size = node.diff_bmp_size = ((node.extent_cnt - 1) >> 3) + 1;
  // Bits are set in 32-bit words.
  const size_t area_bytes = (size_t{node.incr_bmp_size} + 3) & ~size_t{3};
  node.incr_bmp = static_cast<u32*>(snbf_plat_virt_alloc(area_bytes));
  if (node.incr_bmp != nullptr) node.diff_bmp = static_cast<u32*>(snbf_plat_virt_alloc(area_bytes));
  if (node.diff_bmp != nullptr) return 0;
  snbf_plat_virt_free(node.incr_bmp);
  snbf_log(kLogError, "%s(): Failed to allocate %d+%d bytes of memory for bitmaps", kOrigin,
           static_cast<int>(node.incr_bmp_size), static_cast<int>(node.diff_bmp_size));
  return -ENOMEM;
}

// Cut short, both paths could come out the same, and one bitmap would then pass for the other.
int name_bitmap_files(FilterNode& node) {
  const int minor = static_cast<int>(node.minor);
  const int length = snbf_plat_snprintf(node.incr_bmp_fname, sizeof(node.incr_bmp_fname),
                                        "%s/snbf%d.incr", node.bmp_dir, minor);
  snbf_plat_snprintf(node.diff_bmp_fname, sizeof(node.diff_bmp_fname), "%s/snbf%d.diff",
                     node.bmp_dir, minor);
  if (length < static_cast<int>(sizeof(node.incr_bmp_fname))) return 0;
  snbf_log(kLogError, "%s(): Bitmap directory name is too long", kOrigin);
  return -EINVAL;
}

// What cannot be loaded is all ones, so there is no failure to look at. It is so from the beginning: a
// load that finds no memory leaves the bitmap untouched, and zeros would say that nothing changed.
void load_bitmaps(FilterNode& node) {
  node.node_mutex.init();
  node.bmp_mutex.init();
  node.bmp_spin.init("snbf bmp_spin");
  node.io_rwlock.init();
  init_parking(node);
  {
    SpinGuard hold{node.bmp_spin};
    mem_set(node.incr_bmp, 0xFF, node.incr_bmp_size);
    mem_set(node.diff_bmp, 0xFF, node.diff_bmp_size);
    node.incr_bmp_dirty = node.diff_bmp_dirty = 1;
    node.incr_guard.file_is_unknown();
    node.diff_guard.file_is_unknown();
  }
  snbf_block_load_bmp(node, SNBF_BMP_DIFF);
  snbf_block_load_bmp(node, SNBF_BMP_INCR);
}

// The disk, its directory in /proc and its file. Somebody may open the disk as soon as it is there:
// he is refused until the node is in the table and started.
int publish(FilterNode& node) {
  node.disk = allocate_disk(kOrigin, node, node);
  if (node.disk == nullptr) return -ENOMEM;
  ScopeExit put_disk{[&node] { snbf_plat_disk_put(node.disk); }};
  if (int rc = snbf_plat_disk_add(node.disk); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to add generic disk %s: rc=%d", kOrigin, node.disk_name, rc);
    return rc;
  }
  if (int rc = snbf_proc_add_device(node); rc != 0) {
    snbf_plat_disk_del(node.disk);
    return rc;
  }
  snbf_plat_disk_link(node.disk);
  snbf_plat_disk_set_read_only(node.disk, 0);
  make_device_file(node, node.disk_name);
  put_disk.dismiss();
  TableWriteGuard table;
  snbf_blkdev_arr[node.minor] = &node;
  return 0;
}

int build(FilterNode& node, snbf_filter_node_cmd& record) {
  const Result<u32> minor = [&] {
    KsReadGuard table{snbf_blkdev_rwlock};
    return choose_minor(kOrigin, record.minor);
  }();
  if (!minor.ok()) return minor.error();
  name_node(node, record, minor.value());
  snbf_log(1, "%s(): Attaching %s to %s", kOrigin, node.name, node.hdd_name);
  if (int rc = make_bitmaps(node, record.extent_size); rc != 0) return rc;
  ScopeExit free_bitmaps{[&node] {
    snbf_plat_virt_free(node.incr_bmp);
    snbf_plat_virt_free(node.diff_bmp);
  }};
  if (int rc = name_bitmap_files(node); rc != 0) return rc;
  load_bitmaps(node);
  if (int rc = snbf_cowqueue_init(&node.cowqueue, nullptr); rc != 0) return rc;
  ScopeExit destroy_cowqueue{[&node] { snbf_cowqueue_destroy(&node.cowqueue); }};
  if (snbf_aio_init(&node.aio) != 0) return -EIO;
  ScopeExit destroy_aio{[&node] { snbf_aio_destroy(&node.aio); }};
  snbf_log(3, "%s(): dev_size=%lld, extent_size=%d, block_size=%d, bmp_size=%d", kOrigin,
           static_cast<long long>(node.dev_size), static_cast<int>(node.extent_size),
           static_cast<int>(snbf_plat_bdev_block_bytes(node.hdd_bdev)),
           static_cast<int>(node.incr_bmp_size));
  if (int rc = start_parking(node); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to start the threads of %s: rc=%d", kOrigin, node.name, rc);
    return rc;
  }
  ScopeExit stop_parking{[&node] { end_parking(node); }};
  if (int rc = publish(node); rc != 0) return rc;
  stop_parking.dismiss();
  destroy_aio.dismiss();
  destroy_cowqueue.dismiss();
  free_bitmaps.dismiss();
  return 0;
}

}  // namespace

}  // namespace snbf

int snbf_ioctl_add_filter_node(snbf_filter_node_cmd& record) {
  using snbf::Result;
  snbf::bound_texts(record);
  snbf_log(1, "%s(): Adding new node: HDD=%s, snbf_minor=%d, extent_size=%d, bmap_dir=%s",
           snbf::kOrigin, record.hdd_name, record.minor, static_cast<int>(record.extent_size),
           record.bmp_dir);
  snbf::KsMutexGuard life{snbf::lifecycle_mutex};
  if (snbf_blkdev_arr == nullptr) {
    snbf_log(snbf::kLogError, "%s(): The driver is being loaded or unloaded.", snbf::kOrigin);
    return -ENXIO;
  }
  const Result<plat_devt> device = snbf::find_hdd(snbf::kOrigin, record.hdd_name);
  if (!device.ok()) return device.error();
  if (record.uuid[0] == '\0') snbf::make_uuid(record.uuid);
  if (int rc = snbf::refuse_duplicate(device.value()); rc != 0) return rc;
  const Result<snbf::FilterNode*> claim = snbf::claim_partition(record, device.value());
  if (!claim.ok()) return claim.error();
  const int rc = snbf::build(*claim.value(), record);
  if (rc != 0) snbf::give_partition_back(claim.value());
  return rc;
}
