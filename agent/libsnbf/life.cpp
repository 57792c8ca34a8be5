// SPDX-License-Identifier: GPL-2.0-only
// Start, stop and detach, with the clean-stop record kept in step: the driver stops and saves, both
// dirty fields are seen to be 0, and only then does the record say "stopped clean".
#include <cerrno>
#include <string>
#include <vector>

#include "handle.h"
#include "record_file.h"

namespace {

using snbf::lib::bmp_dir_of;
using snbf::lib::boot_id;
using snbf::lib::HostLock;
using snbf::lib::put_text;
using snbf::lib::read_own_state;

// The bitmaps are saved by path. Where the record is not, they would be saved beside the store, and
// the store would not know; where another node's is, over that node's.
int refuse_without_record(const snbf_info& filter, bool may_lose_it) {
  libsnbf_state state;
  const int rc = read_own_state(filter, &state);
  if (rc == -ENOENT) return may_lose_it ? 0 : -ENOLINK;
  return rc == -ENOLINK ? rc : 0;
}

// `recorded` is the answer of the second half; a node that is busy is not stopped at all.
int stop_locked(libsnbf* handle, uint32_t minor, bool may_lose_record, int* recorded) {
  *recorded = 0;
  snbf_info info;
  snbf::lib::SnapsBefore snaps;
  if (int rc = libsnbf_get_info(handle, minor, &info); rc != 0) return rc;
  const bool filter = info.dev_type == SNBF_DEV_FILTER;
  if (filter && info.started) {
    if (int rc = refuse_without_record(info, may_lose_record); rc != 0) return rc;
  }
  if (filter) {
    if (int rc = snbf::lib::snaps_before_stop(handle, info, &snaps); rc != 0) return rc;
  }
  if (int rc = snbf::lib::stop_node_locked(handle, minor); rc != 0) return rc;
  if (filter) *recorded = snbf::lib::record_clean_stop(handle, info);
  if (filter && *recorded == 0) *recorded = snbf::lib::record_snaps_stopped(handle, info, snaps);
  if (filter) snbf::lib::announce(handle, minor, false);
  return 0;
}

// From here the partition may be written: what was known of it no longer holds.
int record_start(libsnbf* handle, const snbf_info& info) {
  libsnbf_state state;
  const std::string dir = bmp_dir_of(info);
  const int rc = read_own_state(info, &state);
  if (rc == -EBADMSG) return 0;  // it says "clean" to nobody
  if (rc != 0) return rc == -ENOENT ? -ENOLINK : rc;
  state.stopped_clean = 0;
  state.epoch = snbf::lib::new_epoch();
  put_text(state.boot_id, boot_id(*handle));
  return libsnbf_state_write(dir.c_str(), info.minor, &state);
}

// -ENOTEMPTY: a start of this snap would truncate what could be resumed.
int refuse_over_an_image(libsnbf* handle, const snbf_info& snap) {
  snbf_info filter;
  libsnbf_snap_record record;
  if (int rc = snbf::lib::filter_of(handle, snap.minor, &filter); rc != 0) return rc;
  const std::string dir = bmp_dir_of(filter);
  const int rc = libsnbf_snap_record_read(dir.c_str(), snap.name, &record);
  if (snbf::lib::is_unread(rc)) return rc;
  return rc == 0 && record.stopped_clean ? -ENOTEMPTY : 0;
}

int start_locked(libsnbf* handle, uint32_t minor) {
  snbf_info info;
  if (int rc = libsnbf_get_info(handle, minor, &info); rc != 0) return rc;
  if (info.started) return -EALREADY;
  if (info.dev_type == SNBF_DEV_SNAP) {
    const int rc = refuse_over_an_image(handle, info);
    return rc != 0 ? rc : snbf::lib::start_node_locked(handle, minor);
  }
  if (int rc = record_start(handle, info); rc != 0) return rc;
  if (int rc = snbf::lib::start_node_locked(handle, minor); rc != 0) return rc;
  snbf::lib::announce(handle, minor, true);
  return 0;
}

int detach_locked(libsnbf* handle, uint32_t minor) {
  snbf_info info;
  std::vector<snbf_info> snaps;
  if (int rc = libsnbf_get_info(handle, minor, &info); rc != 0) return rc;
  for (uint32_t i = 0; info.dev_type == SNBF_DEV_FILTER && i < info.snap_cnt; ++i) {
    snbf_info snap;
    if (libsnbf_get_info(handle, info.snap_minors[i], &snap) == 0) snaps.push_back(snap);
  }
  // A partition or a bitmap directory that has gone away must not keep its node for ever: without a
  // record of a clean stop the next attach starts from all ones.
  int recorded = 0;
  if (int rc = stop_locked(handle, minor, true, &recorded); rc != 0) return rc;
  if (int rc = snbf::lib::del_node_locked(handle, minor); rc != 0) return rc;
  snbf::lib::forget_snaps(info, snaps);
  return 0;
}

}  // namespace

extern "C" {

int libsnbf_start(libsnbf* handle, uint32_t minor) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    return lock.error() ? lock.error() : start_locked(handle, minor);
  });
}

int libsnbf_stop(libsnbf* handle, uint32_t minor) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    if (lock.error()) return lock.error();
    int recorded = 0;
    const int rc = stop_locked(handle, minor, false, &recorded);
    return rc != 0 ? rc : recorded;
  });
}

int libsnbf_detach(libsnbf* handle, uint32_t minor) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    return lock.error() ? lock.error() : detach_locked(handle, minor);
  });
}

}  // extern "C"
