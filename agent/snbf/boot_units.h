// SPDX-License-Identifier: GPL-2.0-only
// What systemd's generator makes of /etc/snbf/nodes: an instance of snbf-node@.service for each
// node, with what it waits for.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "boot_nodes.h"

namespace snbf {

struct BootUnits {
  std::vector<std::pair<std::string, std::string>> files;  // path below the folder, contents
  std::vector<std::pair<std::string, std::string>> links;  // path below the folder, target
};

// None for a node that the initramfs brings up. `mounts` are those of fstab(5).
BootUnits units_for(const std::vector<BootNode>& nodes, const std::vector<MountLine>& mounts);
void write_boot_units(const std::string& folder, const BootUnits& units);

// The one place where a generator can say something.
void tell_kernel_log(const std::string& line);

}  // namespace snbf
