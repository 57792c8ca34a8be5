// SPDX-License-Identifier: GPL-2.0-only
// Paths that the library takes for something else than they are: a file for a block device, a folder
// for one of another file system. They are told by a stat() and an ioctl() in front of the system's
// own.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace snbf::played {

// The regular file is a block device of its size.
void play_device(const std::string& path, dev_t number);
// What lies at the path and below it is on that device; the longest path that fits counts.
void play_file_system(const std::string& path, dev_t number);
// Called once, behind the next rename that succeeds, with its new name.
void play_behind_rename(std::function<void(const std::string& to)> look);
void forget_played();

}  // namespace snbf::played
