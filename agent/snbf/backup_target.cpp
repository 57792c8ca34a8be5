// SPDX-License-Identifier: GPL-2.0-only
#include "backup_target.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>

#include "boot_files.h"
#include "failure.h"
#include "files.h"
#include "skipped.h"
#include "store_nbd.h"

namespace snbf {

namespace fs = std::filesystem;

namespace {

using Kind = BackupTarget::Kind;

std::string new_chain_name() {
  std::ifstream file("/proc/sys/kernel/random/uuid");
  std::string text;
  if (!std::getline(file, text)) throw Failure(kFailed, "the kernel gives no random name");
  return text;
}

// Below a mount point whose file system is missing it would fill the disk that holds that folder.
void check_mounted(const std::string& directory) {
  const std::string mount = missing_mount_of(fs::weakly_canonical(directory));
  if (mount.empty()) return;
  throw Failure(kUnsafe,
                fmt::format("{} is not mounted: {} would go onto another disk", mount, directory),
                fmt::format("`mount {}`, or choose another destination", mount));
}

// Why nothing can stand on this point.
std::string damage_of(const Manifest& manifest, const Point* point, const std::string& folder) {
  if (!point) return "";
  const std::string damage = chain_damage(manifest, *point, folder, false);
  return damage.empty() ? skipped_damage(*point, folder) : damage;
}

Situation situation_of(const snbf_info& node, const std::optional<Manifest>& manifest,
                       std::optional<Level> asked) {
  const libsnbf_state state = read_state(node);
  Situation situation;
  situation.asked = asked;
  situation.manifest = manifest ? &*manifest : nullptr;
  situation.distrust = state.distrust;
  situation.incr_point = state.incr_point;
  situation.diff_point = state.diff_point;
  situation.size = node.dev_size;
  situation.extent_size = node.extent_size;
  return situation;
}

Plan plan_for_program(std::optional<Level> asked) {
  if (asked && *asked != Level::Full) {
    throw Failure(kMisused, "a program is given the whole image: its backups are full ones");
  }
  return {Level::Full, kWhyWhole, "", nullptr};
}

// Nothing of what the disk holds is overwritten unasked, but for what a backup put there.
void check_overwrite(const std::string& uri, const Plan& plan, const NbdLook& look) {
  if (plan.level != Level::Full || look.blank || look.ours) return;
  throw Failure(kUnsafe,
                fmt::format("{} holds data that is not from the last backup of this node{}", uri,
                            look.damage.empty() ? "" : ": " + look.damage),
                "check that it is the right one; --yes overwrites it with a full backup");
}

Plan plan_for_server(const Driver& driver, const snbf_info& node, const std::string& uri,
                     Situation situation, bool overwrite) {
  if (situation.asked == Level::Differential) {
    throw Failure(kMisused, "a server holds the newest point alone: say auto, incr or full");
  }
  const NbdLook look = look_at_nbd(uri, driver.get(node, SNBF_BMP_INCR), situation.manifest);
  situation.damage_newest = look.damage;
  const Plan plan = plan_backup(situation);
  if (!overwrite) check_overwrite(uri, plan, look);
  return plan;
}

}  // namespace

BackupTarget backup_target(const Driver& driver, const snbf_info& node,
                           const std::string& destination, const std::string& pipe) {
  if (destination.empty() == pipe.empty()) {
    throw Failure(kMisused, "give one destination: a directory, an NBD server, or --pipe");
  }
  if (!pipe.empty()) return {Kind::Program, pipe, ""};
  if (is_nbd_uri(destination)) return {Kind::Server, destination, nbd_folder(node, destination)};
  const std::string directory = fs::absolute(destination).lexically_normal();
  if (driver.lies_on(directory, node)) {
    throw Failure(kUnsafe,
                  fmt::format("{} lies on the partition that is to be backed up", directory),
                  "choose a destination on another device");
  }
  check_mounted(directory);
  return {Kind::Directory, directory, directory};
}

UniqueFd lock_target(const BackupTarget& target) {
  if (target.folder.empty()) return {};
  // What lies in it is all that the partition holds: nobody else is to read it.
  const fs::path folder = fs::path(target.folder + "/").parent_path();
  std::error_code failed;
  fs::create_directories(folder.parent_path(), failed);
  if (failed) throw failure_of(-failed.value(), "making " + folder.parent_path().string());
  make_private_folder(folder);
  return lock_file(target.folder + "/.lock", target.place);
}

std::optional<Manifest> manifest_at(const BackupTarget& target, const snbf_info& node) {
  if (target.folder.empty()) return std::nullopt;
  auto manifest = read_manifest(target.folder);
  if (!manifest || manifest->points.empty()) return manifest;
  if (manifest->node_uuid == node.uuid || manifest->node == node.name) return manifest;
  throw Failure(kUnsafe,
                fmt::format("{} holds backups of another node, {}", target.place, manifest->node),
                "give each node a destination of its own");
}

Plan plan_for(const Driver& driver, const snbf_info& node, const BackupTarget& target,
              const std::optional<Manifest>& manifest, std::optional<Level> asked, bool overwrite) {
  if (target.kind == Kind::Program) return plan_for_program(asked);
  Situation situation = situation_of(node, manifest, asked);
  if (target.kind == Kind::Server) {
    return plan_for_server(driver, node, target.place, situation, overwrite);
  }
  if (manifest) {
    situation.damage_newest = damage_of(*manifest, manifest->newest(), target.folder);
    situation.damage_full = damage_of(*manifest, manifest->newest_full(), target.folder);
  }
  return plan_backup(situation);
}

std::unique_ptr<Store> store_for(const BackupTarget& target, const snbf_info& node,
                                 const std::optional<Manifest>& manifest) {
  if (target.kind == Kind::Program) return pipe_store(node, target.place);
  Manifest begun = manifest.value_or(Manifest{});
  if (begun.chain.empty()) begun.chain = new_chain_name();
  if (target.kind == Kind::Server) return nbd_store(node, target.place, target.folder, begun);
  return directory_store(node, target.folder, begun);
}

}  // namespace snbf
