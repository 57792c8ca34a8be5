// SPDX-License-Identifier: GPL-2.0-only
#include "source.h"

#include <fcntl.h>

#include <cerrno>

#include "failure.h"

namespace snbf {

namespace {

constexpr int kReadFlags = O_RDONLY | O_CLOEXEC | O_DIRECT;

}  // namespace

LiveSource::LiveSource(const snbf_info& node) {
  const std::string path = node_path(node);
  mounts_ = mounts_of(device_of(path));
  // Exclusive: nothing can be mounted while we copy what is not mounted now.
  fd_ = UniqueFd(::open(path.c_str(), kReadFlags | O_EXCL));
  exclusive_ = static_cast<bool>(fd_);
  if (!fd_ && errno == EBUSY) fd_ = UniqueFd(::open(path.c_str(), kReadFlags));
  if (!fd_) throw failure_of(-errno, "opening " + path);
}

UniqueFd open_snap(const std::string& device) {
  UniqueFd fd(::open(device.c_str(), kReadFlags));
  if (!fd) throw failure_of(-errno, "opening " + device);
  return fd;
}

}  // namespace snbf
