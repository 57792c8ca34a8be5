// SPDX-License-Identifier: GPL-2.0-only
#include "snap/create.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "base/string.h"
#include "base/units.h"
#include "block/identity.h"
#include "control/proc.h"
#include "core/log.h"
#include "core/memory.h"
#include "core/params.h"
#include "platform/log.h"
#include "util/path.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_ioctl_add_snap_node";
constexpr u32 kMaxChunksShift = 30;  // log2 of the chunks that a snap has at most

using Snaps = List<SnapNode, BySnapOrder>;

// Text from outside may lack its terminator.
void bound_texts(snbf_snap_node_cmd& record) {
  record.cow_bmp_fname[sizeof(record.cow_bmp_fname) - 1] = '\0';
  record.cow_data_fname[sizeof(record.cow_data_fname) - 1] = '\0';
  record.uuid[sizeof(record.uuid) - 1] = '\0';
  record.name[sizeof(record.name) - 1] = '\0';
}

// Copies on the partition that they are copies of would have no end.
int judge_store(const char* path, u32 filter_minor) {
  const plat_devt device = snbf_get_file_devt(path);
  if (dev_major(device) == 0) {
    snbf_log(kLogError, "%s(): Failed to get ID of the device with %s", kOrigin, path);
    return -EINVAL;
  }
  if (device == make_dev(static_cast<u32>(snbf_blk_major), filter_minor)) {
    snbf_log(kLogError, "%s(): File %s can't be on the partition being snapped!", kOrigin, path);
    return -EINVAL;
  }
  return 0;
}

FilterNode* find_filter(u32 minor) REQUIRES_SHARED(snbf_blkdev_rwlock) {
  Node* node = find_node(minor);
  if (node != nullptr && node->dev_type == kFilterNode) return &as_filter(*node);
  snbf_log(kLogError, "%s(): Invalid filter node minor number %d passed.", kOrigin,
           static_cast<int>(minor));
  return nullptr;
}

int judge_count(const FilterNode& filter) {
  u32 count = 0;
  for (SnapNode* snap = filter.snaps.first(); snap != nullptr; snap = Snaps::next(snap)) ++count;
  if (count < kMaxSnaps) return 0;
  snbf_log(kLogError, "%s(): Too many snaps already associated with snbf(%d, %d).", kOrigin,
           snbf_blk_major, static_cast<int>(filter.minor));
  return -ENOSPC;
}

int judge_chunk_size(u32 chunk_size) {
  if (!is_power_of_two(chunk_size)) {
    snbf_log(kLogError, "%s(): Chunk size must be a power of 2", kOrigin);
    return -EINVAL;
  }
  if (chunk_size % kPageBytes != 0) {
    snbf_log(kLogError, "%s(): Chunk size must be a multiple of page size (%dB)", kOrigin,
             static_cast<int>(kPageBytes));
    return -EINVAL;
  }
  return 0;
}

int refuse_small_chunks() {
  snbf_log(kLogError, "%s(): Chunk size can't be smaller than page size (%dB)", kOrigin,
           static_cast<int>(kPageBytes));
  return -EINVAL;
}

// Compared as asked for, before any enlargement: kept, also where both would be enlarged alike.
int judge_likeness(const FilterNode& filter, u32 chunk_size) {
  for (SnapNode* snap = filter.snaps.first(); snap != nullptr; snap = Snaps::next(snap)) {
    if (snap->chunk_size == chunk_size) continue;
    snbf_log(kLogError,
             "%s(): snbf(%d, %d) already has one snap with chunk size %d. All snaps must have "
             "identical chunk sizes.",
             kOrigin, snbf_blk_major, static_cast<int>(filter.minor),
             static_cast<int>(snap->chunk_size));
    return -EINVAL;
  }
  return 0;
}

// The chunk size with which the volume has at most 2^30 chunks; 0: there is none.
u32 enlarge(u32 chunk_size, u64 dev_size) {
  u32 enlarged = chunk_size;
  while (enlarged != 0 && dev_size > (static_cast<u64>(enlarged) << kMaxChunksShift)) enlarged *= 2;
  if (enlarged == chunk_size) return chunk_size;
  if (enlarged == 0) {
    snbf_log(kLogError, "%s(): No chunk size is large enough for a volume of %lld bytes", kOrigin,
             static_cast<long long>(dev_size));
    return 0;
  }
  snbf_log(kLogError, "%s(): Chunk size %d is too small for such a large volume %lld", kOrigin,
           static_cast<int>(chunk_size), static_cast<long long>(dev_size));
  snbf_log(kLogError, "%s(): We have automatically increased it to %d", kOrigin,
           static_cast<int>(enlarged));
  return enlarged;
}

// The record's empty fields are filled on the way: they go back to the caller.
void fill_node(SnapNode& snap, snbf_snap_node_cmd& record, FilterNode& filter, u32 minor) {
  snap.dev_type = kSnapNode;
  snap.minor = minor;
  snap.node_mutex.init();
  snap.map_mutex.init();
  record.snap_minor = static_cast<int>(minor);
  snbf_plat_snprintf(snap.disk_name, sizeof(snap.disk_name), "snbf%d", record.snap_minor);
  if (record.name[0] == '\0') text_copy(record.name, sizeof(record.name), snap.disk_name);
  text_copy(snap.name, sizeof(snap.name), record.name);
  text_copy(snap.uuid, sizeof(snap.uuid), record.uuid);
  text_copy(snap.cow_bmp_fname, sizeof(snap.cow_bmp_fname), record.cow_bmp_fname);
  text_copy(snap.cow_data_fname, sizeof(snap.cow_data_fname), record.cow_data_fname);
  snap.chunk_size = record.chunk_size;
  snap.chunk_shift = log2_floor(record.chunk_size);
  const u64 last_chunk = (filter.dev_size - 1) >> snap.chunk_shift;
  snap.chunk_cnt = last_chunk + 1;
  snap.cow_bmp_size = static_cast<u32>((last_chunk >> 3) + 1);
  snap.cow_data_size = snap.chunk_cnt << snap.chunk_shift;
  snap.filter_node = &filter;
}

void attach(SnapNode& snap) REQUIRES(snbf_blkdev_rwlock) {
  FilterNode& filter = *snap.filter_node;
  if (filter.snaps.empty()) filter.drained.store(0);  // what was passed on in place may be under way
  snbf_blkdev_arr[snap.minor] = &snap;
  filter.snaps.push_back(&snap);
}

// A name that would leave the folder, or take the place of the control device, gets no file.
bool may_name_file(const char* name) {
  return !text_contains(name, "/") && !text_contains(name, "..") && !text_equal(name, "control");
}

// The disk, its directory in /proc and its file. Whoever opens the disk before the snap is in the table is
// refused.
int publish(SnapNode& snap) {
  if (int rc = snbf_plat_disk_add(snap.disk); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to add generic disk %s: rc=%d", kOrigin, snap.disk_name, rc);
    return rc;
  }
  if (int rc = snbf_proc_add_device(snap); rc != 0) {
    snbf_plat_disk_del(snap.disk);
    return rc;
  }
  snbf_plat_disk_link(snap.disk);
  snbf_plat_disk_set_read_only(snap.disk, 1);
  if (may_name_file(snap.name)) make_device_file(snap, snap.name);
  return 0;
}

// The record, in no list yet and without its disk.
Result<SnapNode*> build(snbf_snap_node_cmd& record, FilterNode& filter, TableWriteGuard& table)
    REQUIRES(snbf_blkdev_rwlock) {
  using Snap = Result<SnapNode*>;
  SnapNode* snap = heap_new<SnapNode>(PLAT_ALLOC_NORMAL);
  if (snap == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failure", kOrigin);
    table.leave_held();  // Kept: this return leaves the table locked.
    return Snap::failure(-ENOMEM);
  }
  const Result<u32> minor = choose_minor(kOrigin, record.snap_minor);
  if (!minor.ok()) {
    snbf_plat_heap_free(snap);
    return Snap::failure(minor.error());
  }
  fill_node(*snap, record, filter, minor.value());
  snbf_log(1, "%s(): Attaching snap snbf(%d, %d) to filter snbf(%d, %d)", kOrigin, snbf_blk_major,
           static_cast<int>(snap->minor), snbf_blk_major, static_cast<int>(filter.minor));
  return snap;
}

Result<SnapNode*> judge_and_build(snbf_snap_node_cmd& record) REQUIRES(lifecycle_mutex) {
  using Snap = Result<SnapNode*>;
  TableWriteGuard table;
  FilterNode* filter = find_filter(record.snbf_minor);
  if (filter == nullptr) return Snap::failure(-EINVAL);
  if (int error = judge_count(*filter); error != 0) return Snap::failure(error);
  if (int error = judge_chunk_size(record.chunk_size); error != 0) return Snap::failure(error);
  if (record.chunk_size < kPageBytes) {  // Kept: the tests before let nothing come here.
    table.leave_held();  // Kept: this return would leave the table locked.
    return Snap::failure(refuse_small_chunks());
  }
  if (int error = judge_likeness(*filter, record.chunk_size); error != 0) {
    table.leave_held();  // Kept: this return leaves the table locked.
    return Snap::failure(error);
  }
  record.chunk_size = enlarge(record.chunk_size, filter->dev_size);
  if (record.chunk_size == 0) return Snap::failure(-EINVAL);
  return build(record, *filter, table);
}

// A disk is allocated under a lock of the kernel whose holder may be reclaiming memory, and becomes visible
// through helpers of the kernel that may allocate with I/O; the write that either then waits for may need the
// table. So both happen with the table unlocked. What was judged still holds when the snap enters the table,
// since nobody else adds or deletes under lifecycle_mutex.
int add_to_filter(snbf_snap_node_cmd& record) REQUIRES(lifecycle_mutex) {
  const Result<SnapNode*> built = judge_and_build(record);
  if (!built.ok()) return built.error();
  SnapNode* snap = built.value();
  snap->disk = allocate_disk(kOrigin, *snap, *snap->filter_node);
  if (snap->disk == nullptr) {
    TableWriteGuard table;
    attach(*snap);
    snbf_plat_heap_free(snap);  // Kept: the table and the filter's list still name the record.
    return -ENOMEM;
  }
  if (int rc = publish(*snap); rc != 0) {
    snbf_plat_disk_put(snap->disk);
    snbf_plat_heap_free(snap);
    return rc;
  }
  TableWriteGuard table;
  attach(*snap);
  return 0;
}

}  // namespace

}  // namespace snbf

int snbf_ioctl_add_snap_node(snbf_snap_node_cmd& record) {
  snbf::bound_texts(record);
  snbf_log(1,
           "%s(): Creating new snap node: snap_minor=%d, snbf_minor=%d, chunk_size=%d, "
           "cow_bmp_fname=%s, cow_data_fname=%s",
           snbf::kOrigin, record.snap_minor, static_cast<int>(record.snbf_minor),
           static_cast<int>(record.chunk_size), record.cow_bmp_fname, record.cow_data_fname);
  if (int rc = snbf::judge_store(record.cow_bmp_fname, record.snbf_minor); rc != 0) return rc;
  if (int rc = snbf::judge_store(record.cow_data_fname, record.snbf_minor); rc != 0) return rc;
  if (record.uuid[0] == '\0') snbf::make_uuid(record.uuid);
  snbf::KsMutexGuard life{snbf::lifecycle_mutex};
  return snbf::add_to_filter(record);
}
