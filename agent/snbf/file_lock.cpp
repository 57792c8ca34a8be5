// SPDX-License-Identifier: GPL-2.0-only
#include "file_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "files.h"

namespace snbf {

bool is_locked(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  return file && ::flock(file.get(), LOCK_SH | LOCK_NB) < 0 && errno == EWOULDBLOCK;
}

}  // namespace snbf
