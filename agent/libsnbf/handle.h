// SPDX-License-Identifier: GPL-2.0-only
// What the library's files share: the handle, and small helpers of theirs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "libsnbf.h"

struct libsnbf {
  int control_fd = -1;
  libsnbf_ioctl_fn ioctl = nullptr;
  void* ioctl_context = nullptr;
  std::string lock_path;
  std::string sys_root;
  std::string proc_root;
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
