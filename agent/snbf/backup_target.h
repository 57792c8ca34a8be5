// SPDX-License-Identifier: GPL-2.0-only
// Where a backup goes, and what can stand on what lies there.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "driver.h"
#include "files.h"
#include "manifest.h"
#include "plan.h"
#include "store.h"

namespace snbf {

struct BackupTarget {
  enum class Kind { Directory, Server, Program } kind = Kind::Directory;
  std::string place;   // as people name it
  std::string folder;  // of its manifest; none of a program
};

// Either `destination`, a directory or a server's URI, or `pipe`, a command, is given. Throws if
// not, or if the destination lies on the node itself, or below what fstab mounts and nobody has.
BackupTarget backup_target(const Driver& driver, const snbf_info& node,
                           const std::string& destination, const std::string& pipe);

// Makes the folder if need be, for its owner alone. Throws kBusy. Nothing is locked for a program.
UniqueFd lock_target(const BackupTarget& target);

// Throws if it is another node's.
std::optional<Manifest> manifest_at(const BackupTarget& target, const snbf_info& node);

// `asked`: none for whatever copies least. `overwrite`: also what is not from a backup of ours.
// Throws if the target cannot have that level, or holds what is not to be overwritten.
Plan plan_for(const Driver& driver, const snbf_info& node, const BackupTarget& target,
              const std::optional<Manifest>& manifest, std::optional<Level> asked, bool overwrite);

// `manifest`: nothing if a chain begins.
std::unique_ptr<Store> store_for(const BackupTarget& target, const snbf_info& node,
                                 const std::optional<Manifest>& manifest);

}  // namespace snbf
