// SPDX-License-Identifier: GPL-2.0-only
// What brings nodes up at boot, on this machine: its file, the devices it names, fstab, systemd.
#pragma once

#include <string>
#include <vector>

#include "boot_nodes.h"

namespace snbf {

// No file: no nodes. Throws if it cannot be read.
BootNodes read_boot_nodes();
// Written whole, under a lock; the file and its folder are made where they are missing.
void put_boot_node(const BootNode& node);
bool drop_boot_node(const std::string& name);  // false: there was none

// A minor for the root's node, which comes up before all others: the one in its line, or the lowest
// that no line, no node and no bitmap file in `bitmaps` has.
int minor_for_early(const std::string& name, const std::string& bitmaps);

// PARTUUID=..., or a file below /dev/disk or /dev/mapper; throws kMisused if the device has
// neither.
std::string stable_name_of(const std::string& device);
// The device file that is meant; empty: it is not there.
std::string device_file_of(const std::string& stable_name);

std::vector<MountLine> mounts_of_fstab();
// Where in fstab's order `path` lies on a file system that is not mounted now: its mount point.
std::string missing_mount_of(const std::string& path);

// Mounts the node's store=, unless that has been done, and makes its bitmap directory there.
void mount_early_store(const BootNode& node);

// systemd reads the file again, and takes the named node (empty: none) as its own, to be stopped at
// the shutdown. Nothing where systemd does not run.
void tell_systemd(const std::string& name);

}  // namespace snbf
