// SPDX-License-Identifier: GPL-2.0-only
// Mounts of /etc/fstab that may get a partition, past the node over it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "boot_nodes.h"

namespace snbf {

// Whether the UUID and the label of its file system mean the node, and never the partition: where
// the line has PARTUUID=, udev sees to that; a root's node is there before all mounts.
bool keeps_its_names(const BootNode& node);
// The mount of the file system that has this UUID or label by one of them; null if there is none.
const MountLine* mount_by_name(const std::string& uuid, const std::string& label,
                               const std::vector<MountLine>& mounts);

// Of this machine's fstab, and what is said of it.
std::optional<MountLine> mount_past(const BootNode& node);
std::string mount_past_text(const MountLine& mount);
std::string mount_past_fix(const BootNode& node);
// Says both, if there is one.
void warn_of_mount_past(const BootNode& node);

}  // namespace snbf
