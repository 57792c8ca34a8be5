// SPDX-License-Identifier: GPL-2.0-only
#include "private_folder.h"

#include <sys/stat.h>

#include <cerrno>

#include "failure.h"

namespace snbf {

void make_private_folder(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) < 0 && errno != EEXIST)
    throw failure_of(-errno, "making " + path);
}

}  // namespace snbf
