// SPDX-License-Identifier: GPL-2.0-only
// The nodes that come up at boot: /etc/snbf/nodes, a line a node, to be read and edited by hand.
//
//   name  partition  bitmap-directory  [option,option...]
//
// Blanks divide the fields, '#' begins a comment; a blank within a path is written \040, as in
// fstab(5). The options are extent=SIZE, minor=N and, for a node that the initramfs brings up,
// store=FILE-SYSTEM.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace snbf {

inline constexpr const char* kBootFile = "/etc/snbf/nodes";
// Where the initramfs mounts the file system of a root's bitmaps. Nothing unmounts what lies there.
inline constexpr const char* kEarlyStore = "/run/initramfs/snbf";

struct BootNode {
  std::string name;
  std::string partition;  // PARTUUID=..., or a device file that is the same at every boot
  std::string bitmaps;
  uint32_t extent_size = 65536;
  int minor = -1;     // negative: the one it had last, or a free one
  std::string store;  // the file system to be mounted for the bitmaps in the initramfs; empty: none
  size_t line = 0;    // from 1; 0: not from a file
  bool operator==(const BootNode&) const = default;
};

struct BootNodes {
  std::vector<BootNode> nodes;
  std::vector<std::string> problems;  // "line 3: what is wrong: what to do"
};

// A line that is wrong is a problem, and left out.
BootNodes parse_boot_nodes(const std::string& text);
// Without a newline.
std::string print_boot_node(const BootNode& node);

// The text with this node's line in place of the one that has its name, or behind all others. The
// rest is as it was.
std::string with_boot_node(const std::string& text, const BootNode& node);
std::string without_boot_node(const std::string& text, const std::string& name);

// As fstab(5) has it.
struct MountLine {
  std::string source;
  std::string target;
};

// Null if none has the name.
const BootNode* boot_node_of(const std::vector<BootNode>& nodes, const std::string& name);

// Whether that is the node's device file, as far as its line tells.
bool names_node(const std::string& source, const BootNode& node);

// The mount that `path` lies on; null if on none of them.
const MountLine* mount_of(const std::string& path, const std::vector<MountLine>& mounts);

// Each after the one whose file system holds its bitmaps. Throws kUnsafe where nodes wait for each
// other.
std::vector<BootNode> in_boot_order(const std::vector<BootNode>& nodes,
                                    const std::vector<MountLine>& mounts);

// A unit name of systemd for a path, as systemd-escape(1) makes it.
std::string unit_name_of(const std::string& path, const std::string& suffix);

}  // namespace snbf
