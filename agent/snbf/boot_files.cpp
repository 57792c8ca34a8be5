// SPDX-License-Identifier: GPL-2.0-only
#include "boot_files.h"

#include <blkid/blkid.h>
#include <fmt/format.h>
#include <libmount/libmount.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>

#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "output.h"

namespace snbf {

namespace fs = std::filesystem;

namespace {

constexpr const char* kBootLock = "/run/snbf-nodes.lock";

std::string boot_text() {
  std::string text;
  read_file(kBootFile, &text);
  return text;
}

UniqueFd lock_boot_file() { return lock_file(kBootLock, fmt::format("changing {}", kBootFile)); }

std::string partuuid_of(const std::string& device) {
  std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> probe(
      blkid_new_probe_from_filename(device.c_str()), blkid_free_probe);
  if (!probe) return "";
  blkid_probe_enable_superblocks(probe.get(), 0);
  blkid_probe_enable_partitions(probe.get(), 1);
  blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_ENTRY_DETAILS);
  const char* value = nullptr;
  if (blkid_do_safeprobe(probe.get()) < 0 ||
      blkid_probe_lookup_value(probe.get(), "PART_ENTRY_UUID", &value, nullptr) != 0) {
    return "";
  }
  return value;
}

std::string link_to(const std::string& folder, dev_t device) {
  if (device == 0) return "";  // no block device, as /dev/mapper/control is none
  std::error_code ignored;
  std::string found;
  for (const auto& entry : fs::directory_iterator(folder, ignored)) {
    const std::string path = entry.path();
    if (device_of(path) == device && (found.empty() || path < found)) found = path;
  }
  return found;
}

// The N of each entry that is called snbfN or snbfN.something.
void add_minors_in(const std::string& folder, std::set<int>* minors) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder, ignored)) {
    int minor = 0;
    if (std::sscanf(entry.path().filename().c_str(), "snbf%d", &minor) == 1) minors->insert(minor);
  }
}

std::vector<MountLine> mounts_in(const char* file) {
  std::vector<MountLine> lines;
  std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(mnt_new_table_from_file(file),
                                                                  mnt_unref_table);
  std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> iter(mnt_new_iter(MNT_ITER_FORWARD),
                                                              mnt_free_iter);
  libmnt_fs* entry = nullptr;
  while (table && iter && mnt_table_next_fs(table.get(), iter.get(), &entry) == 0) {
    const char* source = mnt_fs_get_source(entry);
    const char* target = mnt_fs_get_target(entry);
    if (!target) continue;
    std::string place = target;
    while (place.size() > 1 && place.back() == '/') place.pop_back();
    lines.push_back({source ? source : "", place});
  }
  return lines;
}

}  // namespace

BootNodes read_boot_nodes() { return parse_boot_nodes(boot_text()); }

void put_boot_node(const BootNode& node) {
  const std::string folder = folder_of(kBootFile);
  const UniqueFd lock = lock_boot_file();
  if (::mkdir(folder.c_str(), 0755) < 0 && errno != EEXIST) {
    throw failure_of(-errno, "making " + folder);
  }
  const std::string text = with_boot_node(boot_text(), node);
  for (const std::string& problem : parse_boot_nodes(text).problems) {
    throw Failure(kMisused, fmt::format("{}, {}", kBootFile, problem),
                  "correct the line by hand, then try again");
  }
  replace_file(kBootFile, text);
}

bool drop_boot_node(const std::string& name) {
  const UniqueFd lock = lock_boot_file();
  const std::string text = boot_text();
  const std::string rest = without_boot_node(text, name);
  if (rest == text) return false;
  replace_file(kBootFile, rest);
  return true;
}

int minor_for_early(const std::string& name, const std::string& bitmaps) {
  std::set<int> taken;
  for (const BootNode& node : read_boot_nodes().nodes) {
    if (node.name == name && node.minor >= 0) return node.minor;
    taken.insert(node.minor);
  }
  add_minors_in("/proc/snbf", &taken);
  add_minors_in(bitmaps, &taken);
  int minor = 0;
  while (taken.contains(minor)) ++minor;
  return minor;
}

std::string stable_name_of(const std::string& device) {
  if (const std::string uuid = partuuid_of(device); !uuid.empty()) return "PARTUUID=" + uuid;
  for (const char* folder : {"/dev/disk/", "/dev/mapper/"}) {
    if (device.rfind(folder, 0) == 0) return device;
  }
  for (const char* folder : {"/dev/disk/by-id", "/dev/mapper"}) {
    if (const std::string link = link_to(folder, device_of(device)); !link.empty()) return link;
  }
  throw Failure(
      kMisused,
      fmt::format("{} has no PARTUUID, and no name that is the same at every boot", device),
      "make a partition table on the disk, or attach it without --at-boot");
}

std::string device_file_of(const std::string& stable_name) {
  std::unique_ptr<char, decltype(&std::free)> found(
      blkid_evaluate_spec(stable_name.c_str(), nullptr), std::free);
  if (!found || device_of(found.get()) == 0) return "";
  std::error_code ignored;
  const fs::path path = fs::canonical(found.get(), ignored);
  return path.empty() ? found.get() : path.string();
}

std::vector<MountLine> mounts_of_fstab() { return mounts_in("/etc/fstab"); }

std::string missing_mount_of(const std::string& path) {
  const std::vector<MountLine> wanted = mounts_of_fstab();
  const MountLine* mount = mount_of(path, wanted);
  if (!mount || mount->target == "/") return "";
  for (const MountLine& there : mounts_in("/proc/self/mountinfo")) {
    if (there.target == mount->target) return "";
  }
  return mount->target;
}

void mount_early_store(const BootNode& node) {
  const std::string device = device_file_of(node.store);
  if (device.empty()) {
    throw Failure(
        kFailed,
        fmt::format("{}: the file system of its bitmaps, {}, is not there", node.name, node.store),
        fmt::format("correct line {} of {}, then `update-initramfs -u`", node.line, kBootFile));
  }
  std::error_code ignored;
  fs::create_directories(kEarlyStore, ignored);
  bool mounted = false;
  for (const std::string& target : mounts_of(device_of(device))) {
    mounted = mounted || target == kEarlyStore;
  }
  const std::string type = file_system_of(device);
  if (!mounted && ::mount(device.c_str(), kEarlyStore, type.c_str(),
                          MS_NOATIME | MS_NODEV | MS_NOEXEC | MS_NOSUID, nullptr) < 0) {
    throw failure_of(-errno, fmt::format("mounting {} ({}) on {}", device,
                                         type.empty() ? "no file system" : type, kEarlyStore));
  }
  if (::mkdir(node.bitmaps.c_str(), 0700) < 0 && errno != EEXIST) {
    throw failure_of(-errno, "making " + node.bitmaps);
  }
}

void tell_systemd(const std::string& name) {
  if (!fs::exists("/run/systemd/system")) return;
  if (run({"systemctl", "daemon-reload"}).status != 0) {
    warn("systemd could not be told: run `systemctl daemon-reload`");
    return;
  }
  if (name.empty()) return;
  const std::string unit = fmt::format("snbf-node@{}.service", name);
  if (run({"systemctl", "start", unit}).status != 0) {
    warn(fmt::format("{} did not start: `systemctl status {}` says why", unit, unit));
  }
}

}  // namespace snbf
