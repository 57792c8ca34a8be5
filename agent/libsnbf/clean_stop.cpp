// SPDX-License-Identifier: GPL-2.0-only
// What a node leaves in its files, so that they say what they are worth: after a stop, and where it
// cannot be stopped, for its file system stays mounted until the power goes.
#include <fcntl.h>
#include <libmount/libmount.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "handle.h"

namespace snbf::lib {

namespace {

// 0 when the bitmap is seen to be in its file.
int see_saved(libsnbf* handle, uint32_t minor, uint32_t type) {
  int unsaved = 0;
  if (int rc = libsnbf_bmp_unsaved(handle, minor, type, &unsaved); rc != 0 || !unsaved) return rc;
  if (int rc = libsnbf_save_bmp(handle, minor, type); rc != 0) return rc;
  if (int rc = libsnbf_bmp_unsaved(handle, minor, type, &unsaved); rc != 0) return rc;
  return unsaved ? -EIO : 0;
}

}  // namespace

int record_clean_stop(libsnbf* handle, const snbf_info& info) {
  const uint32_t minor = info.minor;
  for (uint32_t type : {SNBF_BMP_INCR, SNBF_BMP_DIFF}) {
    if (int rc = see_saved(handle, minor, type); rc != 0) return rc;
  }
  libsnbf_state state;
  const std::string dir = bmp_dir_of(info);
  if (int rc = read_own_state(info, &state); rc != 0) return rc == -ENOENT ? 0 : rc;
  if (int rc = hash_head(info.hdd_name, &state.head_hash); rc != 0) return rc;
  state.stopped_clean = 1;
  return libsnbf_state_write(dir.c_str(), minor, &state);
}

int record_running(const snbf_info& filter) {
  libsnbf_state state;
  const std::string dir = bmp_dir_of(filter);
  const int read = read_own_state(filter, &state);
  if (read == -ENOENT || read == -EBADMSG) return 0;  // it says "clean" to nobody
  if (read != 0) return read;
  state.stopped_clean = 0;
  return libsnbf_state_write(dir.c_str(), filter.minor, &state);
}

}  // namespace snbf::lib

namespace {

using snbf::lib::bmp_dir_of;
using snbf::lib::Fd;
using snbf::lib::HostLock;

// The driver's own form of it: the flag, and nothing behind.
constexpr char kFlagged[] = {'S', 'N', 'B', 'F', 'B', 'M', 'P', 1};

int write_flag(const char* path) {
  Fd file(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file.ok()) return -errno;
  const ssize_t written = ::write(file.get(), kFlagged, sizeof kFlagged);
  if (written != sizeof kFlagged) return written < 0 ? -errno : -EIO;
  return ::fsync(file.get()) < 0 ? -errno : 0;
}

int get_started_filter(libsnbf* handle, uint32_t minor, snbf_info* out) {
  if (int rc = libsnbf_get_info(handle, minor, out); rc != 0) return rc;
  return out->dev_type == SNBF_DEV_FILTER && out->started ? 0 : -EINVAL;
}

int leave_dirty_locked(libsnbf* handle, uint32_t minor) {
  snbf_info info;
  if (int rc = get_started_filter(handle, minor, &info); rc != 0) return rc;
  const int running = snbf::lib::record_running(info);
  if (running == -ENOLINK) return running;  // the files there are another node's
  const int incr = write_flag(info.incr_bmp_fname);
  const int diff = write_flag(info.diff_bmp_fname);
  return running != 0 ? running : incr != 0 ? incr : diff;
}

// 1 if every mount of the node can only read. What the file system itself may write is a matter of
// its superblock, and not of one of its mounts.
bool is_read_only(const libsnbf& handle, dev_t device, const std::string& node_file) {
  const std::string mounts = handle.proc_root + "/self/mountinfo";
  std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(
      mnt_new_table_from_file(mounts.c_str()), mnt_unref_table);
  std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> iter(mnt_new_iter(MNT_ITER_FORWARD),
                                                              mnt_free_iter);
  if (!table || !iter) return false;
  bool found = false;
  libmnt_fs* entry = nullptr;
  while (mnt_table_next_fs(table.get(), iter.get(), &entry) == 0) {
    const char* source = mnt_fs_get_source(entry);
    if (mnt_fs_get_devno(entry) != device && !(source && node_file == source)) continue;
    const char* options = mnt_fs_get_fs_options(entry);
    if (!options || mnt_match_options(options, "ro") != 1) return false;
    found = true;
  }
  return found;
}

bool any_snap_started(libsnbf* handle, const snbf_info& filter) {
  for (uint32_t i = 0; i < filter.snap_cnt; ++i) {
    snbf_info snap;
    if (libsnbf_get_info(handle, filter.snap_minors[i], &snap) != 0 || snap.started) return true;
  }
  return false;
}

int rest_locked(libsnbf* handle, uint32_t minor) {
  snbf_info info;
  uint32_t major = 0;
  if (int rc = get_started_filter(handle, minor, &info); rc != 0) return rc;
  if (int rc = libsnbf_blk_major(handle, &major); rc != 0) return rc;
  const std::string file = snbf::lib::node_device(*handle, minor);
  if (!is_read_only(*handle, makedev(major, minor), file) || any_snap_started(handle, info)) {
    return -EBUSY;
  }
  if (int rc = snbf::lib::flush_node(*handle, minor); rc != 0) return rc;
  if (int rc = snbf::lib::record_clean_stop(handle, info); rc != 0) return rc;
  for (uint32_t type : {SNBF_BMP_INCR, SNBF_BMP_DIFF}) {
    int unsaved = 1;
    if (int rc = libsnbf_bmp_unsaved(handle, minor, type, &unsaved); rc != 0 || unsaved) {
      snbf::lib::record_running(info);
      return rc != 0 ? rc : -EAGAIN;
    }
  }
  return 0;
}

}  // namespace

extern "C" {

int libsnbf_leave_dirty(libsnbf* handle, uint32_t minor) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    return lock.error() ? lock.error() : leave_dirty_locked(handle, minor);
  });
}

int libsnbf_rest(libsnbf* handle, uint32_t minor) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    return lock.error() ? lock.error() : rest_locked(handle, minor);
  });
}

}  // extern "C"
