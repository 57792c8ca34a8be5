// SPDX-License-Identifier: GPL-2.0-only
// A node can be read only while it is started, and the kernel announces it at its creation, when it
// is not. So udev is told to look again. It opens a disk before it looks at any event but its
// removal, and passes over one that it cannot open: so a stopped node is removed, for udev.
#include <fcntl.h>
#include <unistd.h>

#include "handle.h"

namespace snbf::lib {

void announce(libsnbf* handle, uint32_t minor, bool started) {
  uint32_t major = 0;
  if (libsnbf_blk_major(handle, &major) != 0) return;
  const std::string path = handle->sys_root + "/dev/block/" + std::to_string(major) + ":" +
                           std::to_string(minor) + "/uevent";
  Fd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  // Nobody to tell is no failure: the node does what it is to do without.
  const std::string action = started ? "change" : "remove";
  if (file.ok() && ::write(file.get(), action.data(), action.size()) < 0) return;
}

}  // namespace snbf::lib
