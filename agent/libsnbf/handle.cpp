// SPDX-License-Identifier: GPL-2.0-only
#define XXH_INLINE_ALL
#include "handle.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>
#include <xxhash.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>

namespace snbf::lib {

namespace {

constexpr size_t kHeadBytes = 128 * 1024;
constexpr size_t kDirectAlignment = 4096;

}  // namespace

HostLock::HostLock(const libsnbf& handle) {
  fd_ = ::open(handle.lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd_ < 0) {
    error_ = -errno;
    return;
  }
  int rc;
  do rc = ::flock(fd_, LOCK_EX);
  while (rc < 0 && errno == EINTR);
  if (rc < 0) error_ = -errno;
}

HostLock::~HostLock() {
  if (fd_ >= 0) ::close(fd_);
}

Fd::~Fd() {
  if (fd_ >= 0) ::close(fd_);
}

std::string read_line(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string hex64(uint64_t value) {
  char text[20];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

std::string boot_id(const libsnbf& handle) {
  return read_line(handle.proc_root + "/sys/kernel/random/boot_id");
}

std::string bmp_dir_of(const snbf_info& filter) {
  const std::string path = filter.incr_bmp_fname;
  const size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

int read_own_state(const snbf_info& filter, libsnbf_state* out) {
  const int rc = libsnbf_state_read(bmp_dir_of(filter).c_str(), filter.minor, out);
  // Another file system may be mounted where its own was.
  if (rc == 0 && out->uuid[0] && std::strcmp(out->uuid, filter.uuid) != 0) return -ENOLINK;
  return rc;
}

int read_record_in_sight(const snbf_info& filter, libsnbf_state* out) {
  const int rc = read_own_state(filter, out);
  if (rc == -EBADMSG) *out = libsnbf_state{};
  if (rc == -ENOENT || rc == -ENOTDIR) return -ENOLINK;
  return rc == -EBADMSG ? 0 : rc;
}

std::string node_device(const libsnbf& handle, uint32_t minor) {
  return handle.dev_root + "/snbf/snbf" + std::to_string(minor);
}

int flush_node(const libsnbf& handle, uint32_t minor) {
  const Fd node(::open(node_device(handle, minor).c_str(), O_RDONLY | O_CLOEXEC));
  return !node.ok() || ::fsync(node.get()) < 0 ? -errno : 0;
}

int hash_head(const char* partition, uint64_t* out) {
  int flags = O_RDONLY | O_CLOEXEC | O_DIRECT;
  int fd = ::open(partition, flags);
  if (fd < 0 && errno == EINVAL) fd = ::open(partition, flags & ~O_DIRECT);
  Fd file(fd);
  if (!file.ok()) return -errno;
  void* raw = nullptr;
  if (::posix_memalign(&raw, kDirectAlignment, kHeadBytes) != 0) return -ENOMEM;
  std::unique_ptr<void, decltype(&::free)> buffer(raw, ::free);
  const ssize_t n = ::pread(file.get(), raw, kHeadBytes, 0);
  if (n < 0) return -errno;
  *out = XXH3_64bits(raw, static_cast<size_t>(n));
  return 0;
}

uint64_t new_epoch() {
  uint64_t number = 0;
  while (::getrandom(&number, sizeof number, 0) != sizeof number) {
  }
  return number;
}

bool is_driver_name(const std::string& name) {
  return name.size() > 4 && name.rfind("snbf", 0) == 0 &&
         name.find_first_not_of("0123456789", 4) == std::string::npos;
}

int list_nodes(libsnbf* handle, Nodes* out) {
  for (uint32_t kind : {SNBF_DEV_FILTER, SNBF_DEV_SNAP}) {
    snbf_device_list list;
    if (int rc = libsnbf_get_device_list(handle, kind, &list); rc != 0) return rc;
    for (uint32_t i = 0; i < list.count; ++i) {
      snbf_info info;
      out->minors.insert(list.minors[i]);
      if (libsnbf_get_info(handle, list.minors[i], &info) == 0) out->names.insert(info.name);
    }
  }
  return 0;
}

int filter_of(libsnbf* handle, uint32_t snap_minor, snbf_info* out) {
  snbf_device_list list;
  if (int rc = libsnbf_get_device_list(handle, SNBF_DEV_FILTER, &list); rc != 0) return rc;
  for (uint32_t i = 0; i < list.count; ++i) {
    if (libsnbf_get_info(handle, list.minors[i], out) != 0) continue;
    for (uint32_t k = 0; k < out->snap_cnt; ++k) {
      if (out->snap_minors[k] == snap_minor) return 0;
    }
  }
  return -ENOENT;
}

}  // namespace snbf::lib
