// SPDX-License-Identifier: GPL-2.0-only
#include "block/query.h"

#include "base/errno.h"
#include "base/string.h"
#include "core/log.h"

using snbf::kLogError;

namespace snbf {

namespace {

static_assert(kUuidBytes == SNBF_UUID_BYTES && kNameBytes == SNBF_NAME_BYTES);
static_assert(kPathBytes == SNBF_PATH_BYTES && kMaxSnaps == SNBF_MAX_SNAPS);

// The whole field, its last byte forced to be the terminator.
template <size_t kBytes>
void copy_field(char (&to)[kBytes], const char (&from)[kBytes]) {
  mem_copy(to, from, kBytes);
  to[kBytes - 1] = '\0';
}

struct Fill {
  bool empty;
  bool full;
};

// Over exactly `bits` bits. Without bmp_spin: a write that goes on meanwhile may be seen or not.
Fill judge_fill(const u32* bitmap, u32 bits) {
  Fill fill{true, true};
  const u32 words = bits / 32;
  for (u32 i = 0; i < words && (fill.empty || fill.full); ++i) {
    const u32 word = __atomic_load_n(&bitmap[i], __ATOMIC_RELAXED);
    if (word != 0) fill.empty = false;
    if (word != ~u32{0}) fill.full = false;
  }
  if (bits % 32 != 0) {
    const u32 mask = (u32{1} << (bits % 32)) - 1;
    const u32 word = __atomic_load_n(&bitmap[words], __ATOMIC_RELAXED) & mask;
    if (word != 0) fill.empty = false;
    if (word != mask) fill.full = false;
  }
  return fill;
}

void fill_filter_info(FilterNode& filter, snbf_info& record) NO_THREAD_SAFETY_ANALYSIS {
  copy_field(record.hdd_name, filter.hdd_name);
  record.dev_size = filter.dev_size;
  record.extent_size = filter.extent_size;
  record.extent_cnt = filter.extent_cnt;
  record.snap_cnt = 0;
  for (SnapNode* snap = filter.snaps.first(); snap != nullptr && record.snap_cnt < kMaxSnaps;
       snap = List<SnapNode, BySnapOrder>::next(snap)) {
    record.snap_minors[record.snap_cnt++] = snap->minor;
  }
  record.incr_bmp_size = filter.incr_bmp_size;
  record.diff_bmp_size = filter.diff_bmp_size;
  copy_field(record.incr_bmp_fname, filter.incr_bmp_fname);
  copy_field(record.diff_bmp_fname, filter.diff_bmp_fname);
  if (filter.incr_bmp != nullptr) {
    const Fill fill = judge_fill(filter.incr_bmp, filter.extent_cnt);
    record.incr_bmp_empty = fill.empty;
    record.incr_bmp_full = fill.full;
  }
  if (filter.diff_bmp != nullptr) {
    const Fill fill = judge_fill(filter.diff_bmp, filter.extent_cnt);
    record.diff_bmp_empty = fill.empty;
    record.diff_bmp_full = fill.full;
  }
}

int fill_snap_info(SnapNode& snap, snbf_info& record) {
  const FilterNode* filter = snap.filter_node;
  if (filter == nullptr || filter->dev_type != kFilterNode) {
    snbf_log(kLogError, "%s(): Snap device snbf(%d, %d) is not attached to a filter device.",
             "snbf_ioctl_get_info", snbf_blk_major, static_cast<int>(snap.minor));
    return -EINVAL;
  }
  record.snap_valid = static_cast<u32>(snap.snap_valid.load());
  record.stop_pending = static_cast<u32>(snap.stop_pending.load());
  record.del_pending = static_cast<u32>(snap.del_pending.load());
  record.dev_size = filter->dev_size;
  record.chunk_cnt = static_cast<u32>(snap.chunk_cnt);
  record.chunk_size = snap.chunk_size;
  record.cow_bmp_size = snap.cow_bmp_size;
  record.cow_data_size = snap.cow_data_size;
  copy_field(record.cow_bmp_fname, snap.cow_bmp_fname);
  copy_field(record.cow_data_fname, snap.cow_data_fname);
  return 0;
}

}  // namespace

}  // namespace snbf

int snbf_ioctl_get_device_list(snbf_device_list& record) {
  constexpr const char* kOrigin = "snbf_get_device_list_node";  // Kept: not the handler's own name.
  if (record.dev_type != SNBF_DEV_FILTER && record.dev_type != SNBF_DEV_SNAP) {
    snbf_log(kLogError, "%s(): Invalid device type 0x%02x passed as input.", kOrigin,
             record.dev_type);
    return -EINVAL;
  }
  snbf_log(2, "%s(): Returning the list of %s devices.", kOrigin,
           record.dev_type == SNBF_DEV_FILTER ? "FILTER" : "SNAP");
  snbf::KsReadGuard table{snbf_blkdev_rwlock};
  record.count = 0;
  // Kept: the highest minor is never listed. Pinned by DeviceList.LeavesOutTheHighestMinor.
  for (int minor = 0; minor < snbf_max_blk_minor && record.count < SNBF_LIST_CAPACITY; ++minor) {
    const snbf::Node* node = snbf::find_node(static_cast<snbf::u32>(minor));
    if (node == nullptr || static_cast<snbf::u32>(node->dev_type) != record.dev_type) continue;
    record.minors[record.count++] = static_cast<snbf::u32>(minor);
  }
  return 0;
}

int snbf_ioctl_get_info(snbf::Node& node, snbf_info& record) {
  snbf_log(2, "%s(): Getting info on snbf(%d, %d)", "snbf_ioctl_get_info", snbf_blk_major,
           static_cast<int>(node.minor));
  record.dev_type = static_cast<snbf::u32>(node.dev_type);
  record.started = static_cast<snbf::u32>(node.started.load());
  record.use_cnt = static_cast<snbf::u32>(node.use_cnt.load());
  snbf::copy_field(record.uuid, node.uuid);
  snbf::copy_field(record.name, node.name);
  if (node.dev_type == snbf::kFilterNode) {
    snbf::fill_filter_info(snbf::as_filter(node), record);
    return 0;
  }
  if (node.dev_type == snbf::kSnapNode) return snbf::fill_snap_info(snbf::as_snap(node), record);
  return 0;
}
