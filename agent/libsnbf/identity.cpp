// SPDX-License-Identifier: GPL-2.0-only
#define XXH_INLINE_ALL
#include "identity.h"

#include <blkid/blkid.h>
#include <sys/sysmacros.h>
#include <xxhash.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <utility>

namespace snbf::lib {

namespace {

namespace fs = std::filesystem;

using Probe = std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)>;

// In the order of trust. A disk's attributes lie with it or, by its bus, with the device behind it.
constexpr std::pair<const char*, const char*> kAttributes[] = {
    {"md", "md/uuid"},    {"bcache", "bcache/backing_dev_uuid"},
    {"wwid", "wwid"},     {"wwid", "device/wwid"},
    {"serial", "serial"}, {"serial", "device/serial"},
};

std::string partuuid_of(dev_t device) {
  char name[64];
  dev_t disk = 0;
  if (blkid_devno_to_wholedisk(device, name, sizeof name, &disk) != 0) return "";
  const std::unique_ptr<char, decltype(&std::free)> path(blkid_devno_to_devname(disk), std::free);
  if (!path) return "";
  const Probe probe(blkid_new_probe_from_filename(path.get()), blkid_free_probe);
  if (!probe) return "";
  blkid_partlist partitions = blkid_probe_get_partitions(probe.get());
  blkid_partition found =
      partitions ? blkid_partlist_devno_to_partition(partitions, device) : nullptr;
  const char* uuid = found ? blkid_partition_get_uuid(found) : nullptr;
  return uuid ? uuid : "";
}

std::string without_blanks_around(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  return first == std::string::npos ? ""
                                    : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// A path may be longer than a record has room for.
std::string loop_identity(const fs::path& here) {
  const std::string file = read_line(here / "loop/backing_file");
  if (file.empty()) return "";
  constexpr size_t kRoom = 100;
  const std::string known =
      file.size() < kRoom ? file : "#" + hex64(XXH3_64bits(file.data(), file.size()));
  const std::string offset = read_line(here / "loop/offset");
  return "loop:" + known + (offset.empty() || offset == "0" ? "" : "+" + offset);
}

std::vector<std::string> of_whole(const fs::path& here) {
  std::vector<std::string> found;
  const std::string dm_uuid = read_line(here / "dm/uuid");
  const std::string dm_name = read_line(here / "dm/name");
  if (!dm_uuid.empty()) {
    found.push_back("dm:" + dm_uuid);
  } else if (!dm_name.empty()) {
    found.push_back("dm-name:" + dm_name);
  }
  for (const auto& [kind, file] : kAttributes) {
    const std::string value = without_blanks_around(read_line(here / file));
    if (!value.empty()) found.push_back(std::string(kind) + ":" + value);
  }
  const std::string loop = loop_identity(here);
  if (!loop.empty()) found.push_back(loop);
  return found;
}

}  // namespace

std::vector<std::string> identities_of(const libsnbf& handle, dev_t device) {
  const fs::path here = handle.sys_root + "/dev/block/" + std::to_string(major(device)) + ":" +
                        std::to_string(minor(device));
  const std::string number = read_line(here / "partition");
  if (number.empty()) return of_whole(here);
  std::vector<std::string> found;
  const std::string uuid = partuuid_of(device);
  if (!uuid.empty()) found.push_back("partuuid:" + uuid);
  std::error_code ignored;
  for (const std::string& disk : of_whole(fs::canonical(here, ignored).parent_path())) {
    found.push_back(disk + "-part" + number);
  }
  return found;
}

}  // namespace snbf::lib
