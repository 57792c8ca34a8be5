// SPDX-License-Identifier: GPL-2.0-only
#include "boot_units.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "failure.h"
#include "files.h"

namespace snbf {

namespace fs = std::filesystem;

namespace {

constexpr const char* kUnitPath = "/usr/lib/systemd/system/snbf-node@.service";

// The file that udev makes for it; empty: it is not known.
std::string udev_file_of(const std::string& partition) {
  for (const auto& [tag, folder] : {std::pair{"PARTUUID=", "/dev/disk/by-partuuid/"},
                                    std::pair{"PARTLABEL=", "/dev/disk/by-partlabel/"}}) {
    const std::string start = tag;
    if (partition.rfind(start, 0) == 0) return folder + partition.substr(start.size());
  }
  return partition;
}

// A value of a unit file: one word, with no specifier in it.
std::string quoted(const std::string& text) {
  std::string word = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') word += '\\';
    word += c;
    if (c == '%') word += '%';
  }
  return word + "\"";
}

// At a shutdown all this runs backwards: the node is stopped before what holds its bitmaps goes.
std::string drop_in(const BootNode& node) {
  const std::string device = unit_name_of(udev_file_of(node.partition), ".device");
  return fmt::format(
      "# Made from {}, line {}.\n"
      "[Unit]\n"
      "Wants={}\n"
      "After={}\n"
      "RequiresMountsFor={}\n",
      kBootFile, node.line, device, device, quoted(node.bitmaps));
}

}  // namespace

BootUnits units_for(const std::vector<BootNode>& nodes, const std::vector<MountLine>& mounts) {
  BootUnits units;
  for (const BootNode& node : nodes) {
    if (!node.store.empty()) continue;
    const std::string unit = fmt::format("snbf-node@{}.service", node.name);
    units.files.emplace_back(unit + ".d/50-nodes.conf", drop_in(node));
    for (const MountLine& mount : mounts) {
      if (!names_node(mount.source, node)) continue;
      units.files.emplace_back(unit_name_of(mount.target, ".mount") + ".d/50-snbf.conf",
                               fmt::format("[Unit]\nAfter={}\n", unit));
    }
    units.links.emplace_back("local-fs.target.wants/" + unit, kUnitPath);
  }
  return units;
}

void write_boot_units(const std::string& folder, const BootUnits& units) {
  for (const auto& [path, text] : units.files) {
    fs::create_directories((fs::path(folder) / path).parent_path());
    std::ofstream file(fs::path(folder) / path);
    if (!(file << text) || !file.flush()) throw failure_of(-EIO, "writing " + path);
  }
  for (const auto& [path, target] : units.links) {
    fs::create_directories((fs::path(folder) / path).parent_path());
    fs::create_symlink(target, fs::path(folder) / path);
  }
}

void tell_kernel_log(const std::string& line) {
  UniqueFd log(::open("/dev/kmsg", O_WRONLY | O_CLOEXEC));
  const std::string text = "<4>snbf: " + line;
  if (log && ::write(log.get(), text.data(), text.size()) < 0) return;
}

}  // namespace snbf
