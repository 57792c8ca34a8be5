// SPDX-License-Identifier: GPL-2.0-only
// What the library's files share: the handle, and small helpers of theirs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "libsnbf.h"

struct libsnbf {
  int control_fd = -1;
  libsnbf_ioctl_fn ioctl = nullptr;
  void* ioctl_context = nullptr;
  std::string lock_path;
  std::string sys_root;
  std::string proc_root;
  std::string dev_root;
};

namespace snbf::lib {

// Held while it lives; the file is never removed, since another may be waiting on it.
class HostLock {
 public:
  explicit HostLock(const libsnbf& handle);
  ~HostLock();
  HostLock(const HostLock&) = delete;
  HostLock& operator=(const HostLock&) = delete;
  int error() const { return error_; }

 private:
  int fd_ = -1;
  int error_ = 0;
};

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd();
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

 private:
  int fd_;
};

// The whole of a small file without its last newline; empty when it cannot be read.
std::string read_line(const std::string& path);

std::string hex64(uint64_t value);
std::string boot_id(const libsnbf& handle);
// The directory of a filter node's files, from the path that the driver answers.
std::string bmp_dir_of(const snbf_info& filter);

std::string node_device(const libsnbf& handle, uint32_t minor);
// What was written to a filter node's device itself, past any file system, and the disk's cache behind it. 0 or a
// negated error number.
int flush_node(const libsnbf& handle, uint32_t minor);

// Of the partition's first blocks, past the page cache. Any file system that is mounted for writing
// touches them: the hash at a stop shows later whether somebody wrote in between.
int hash_head(const char* partition, uint64_t* out);
// A number that no other call has answered.
uint64_t new_epoch();

// "snbf" and a number: the driver's own names. A node of that name takes the device file of
// another.
bool is_driver_name(const std::string& name);

// Every node that the driver lists, of either kind.
struct Nodes {
  std::set<uint32_t> minors;
  std::set<std::string> names;
};
int list_nodes(libsnbf* handle, Nodes* out);
// The filter node that a snap hangs on.
int filter_of(libsnbf* handle, uint32_t snap_minor, snbf_info* out);

// The state record of a filter node; a node without one was attached by others, and that is no
// failure. The first is for one that nothing writes to any more: both bitmaps are seen to be saved
// before the record says so, and a failure leaves it "running". The second says "running".
int record_clean_stop(libsnbf* handle, const snbf_info& filter);
int record_running(const snbf_info& filter);

// Has udev look at a filter node that was started, and forget one that was stopped. It opens a
// started one for a moment.
void announce(libsnbf* handle, uint32_t minor, bool started);

// The commands that take the host's lock, for callers that hold it.
int del_node_locked(libsnbf* handle, uint32_t minor);
int start_node_locked(libsnbf* handle, uint32_t minor);
int stop_node_locked(libsnbf* handle, uint32_t minor);
int add_snap_node_locked(libsnbf* handle, snbf_snap_node_cmd* record);
int resume_snap_locked(libsnbf* handle, const snbf_resume_cmd& record);

// The record of a filter node. -ENOENT: its directory has none; -ENOLINK: it has another node's.
int read_own_state(const snbf_info& filter, libsnbf_state* out);

// The same, for whoever changes it or what it speaks of. -ENOLINK: it is not in the directory, or
// another node's is. A damaged one is blank. What cannot be read is no reason to write it anew.
int read_record_in_sight(const snbf_info& filter, libsnbf_state* out);

// What is needed for a write to `path` must not need a write to `device`: -ELOOP. -ENOLINK: it needs
// the files of a node that are not in sight.
int check_store(libsnbf* handle, const char* path, uint64_t device);

// The snaps' side of what happens to their filter node.
struct SnapsBefore {
  std::vector<snbf_info> started;  // when the stop began
};
int snaps_before_stop(libsnbf* handle, const snbf_info& filter, SnapsBefore* out);
int record_snaps_stopped(libsnbf* handle, const snbf_info& filter, const SnapsBefore& before);
// After a snap node and its files are gone.
void forget_snaps(const snbf_info& filter, const std::vector<snbf_info>& snaps);

// Nothing may be thrown across the C border.
template <class Body>
int at_border(Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return -12;  // the only exceptions here are of memory
  }
}

// False: the text does not fit with its terminator.
template <size_t kBytes>
bool put_text(char (&field)[kBytes], const std::string& text) {
  if (text.size() >= kBytes) return false;
  std::memset(field, 0, kBytes);
  std::memcpy(field, text.data(), text.size());
  return true;
}

}  // namespace snbf::lib
