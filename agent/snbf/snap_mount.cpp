// SPDX-License-Identifier: GPL-2.0-only
#include "snap_mount.h"

#include <utility>

namespace snbf {

std::string snap_mount_options(const std::string& type) {
  static constexpr std::pair<const char*, const char*> kOptions[] = {
      {"ext3", "ro,noload"},
      {"ext4", "ro,noload"},
      // Two file systems of one UUID are not mounted at once, but for this.
      {"xfs", "ro,norecovery,nouuid"},
      {"reiserfs", "ro,nolog"},
      {"f2fs", "ro,norecovery"},
      {"nilfs2", "ro,norecovery"},
      // It takes two devices of one UUID for one file system.
      {"btrfs", ""},
  };
  for (const auto& [known, options] : kOptions) {
    if (type == known) return options;
  }
  return "ro";
}

}  // namespace snbf
