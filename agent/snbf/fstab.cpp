// SPDX-License-Identifier: GPL-2.0-only
#include "fstab.h"

#include <fmt/format.h>

#include <algorithm>

#include "boot_files.h"
#include "destination.h"
#include "output.h"

namespace snbf {

bool keeps_its_names(const BootNode& node) {
  return node.partition.rfind("PARTUUID=", 0) == 0 || !node.store.empty();
}

const MountLine* mount_by_name(const std::string& uuid, const std::string& label,
                               const std::vector<MountLine>& mounts) {
  std::vector<std::string> names;
  if (!uuid.empty()) names = {"UUID=" + uuid, "/dev/disk/by-uuid/" + uuid};
  if (!label.empty()) names.insert(names.end(), {"LABEL=" + label, "/dev/disk/by-label/" + label});
  const auto found = std::find_if(mounts.begin(), mounts.end(), [&](const MountLine& mount) {
    return std::find(names.begin(), names.end(), mount.source) != names.end();
  });
  return found == mounts.end() ? nullptr : &*found;
}

std::optional<MountLine> mount_past(const BootNode& node) {
  const std::string device = keeps_its_names(node) ? "" : device_file_of(node.partition);
  if (device.empty()) return std::nullopt;
  const std::vector<MountLine> mounts = mounts_of_fstab();
  const MountLine* found = mount_by_name(uuid_of(device), label_of(device), mounts);
  return found ? std::optional(*found) : std::nullopt;
}

std::string mount_past_text(const MountLine& mount) {
  return fmt::format(
      "/etc/fstab mounts {} on {}: at a boot that may be the partition, past the node",
      mount.source, mount.target);
}

std::string mount_past_fix(const BootNode& node) {
  return fmt::format("write /dev/snbf/{} there in its place", node.name);
}

void warn_of_mount_past(const BootNode& node) {
  const auto mount = mount_past(node);
  if (!mount) return;
  warn(mount_past_text(*mount));
  note("      " + mount_past_fix(node));
}

}  // namespace snbf
