// SPDX-License-Identifier: GPL-2.0-only
#include "findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <utility>

#include "fs_end.h"
#include "output.h"
#include "sizes.h"

namespace snbf {

namespace {

// The kernels that every change is tested on.
constexpr std::pair<unsigned, unsigned> kTested[] = {{6, 1}, {6, 12}};
constexpr unsigned kDeviceMajor = 100;  // the driver's default, of either kind

// Whose the major is in that section of /proc/devices; empty: nobody's.
std::string owner_of(const std::string& devices, const std::string& section, unsigned major) {
  std::istringstream lines(devices);
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.find(':') != std::string::npos) inside = line == section;
    std::istringstream words(line);
    unsigned number = 0;
    std::string owner;
    if (inside && words >> number >> owner && number == major) return owner;
  }
  return "";
}

// The kernel marks a module as unsigned for a signature by a key that it does not know, too.
std::string about_loaded(const ModuleFacts& facts) {
  if (facts.taints.find('E') == std::string::npos) return "loaded";
  if (facts.signer.empty()) return "loaded, not signed";
  return fmt::format(
      "loaded, not signed with a key that the kernel knows (its file is signed by {})",
      facts.signer);
}

}  // namespace

Finding judge_kernel(const std::string& release) {
  unsigned major = 0;
  unsigned minor = 0;
  std::sscanf(release.c_str(), "%u.%u", &major, &minor);
  if (std::find(std::begin(kTested), std::end(kTested), std::pair{major, minor}) !=
      std::end(kTested)) {
    return {"kernel", Grade::Good, release, ""};
  }
  return {
      "kernel", Grade::Warning, release,
      "the driver is tested on Linux 6.1 and 6.12 alone: boot one of them for data that matters"};
}

Finding judge_module(const ModuleFacts& facts) {
  const char* const kWhat = "module";
  if (facts.loaded && !facts.control) {
    return {kWhat, Grade::Bad, "loaded, but /dev/snbf/control is missing",
            "mount devtmpfs on /dev"};
  }
  if (facts.loaded) return {kWhat, Grade::Good, about_loaded(facts), ""};
  if (facts.file.empty()) {
    return {kWhat, Grade::Bad, "none is installed for the running kernel",
            "install the headers of this kernel, then `make module install`"};
  }
  if (facts.signed_only && facts.signer.empty()) {
    return {kWhat, Grade::Bad, facts.file + " is not signed, and Secure Boot is on",
            "sign it with an enrolled machine owner's key (mokutil --import)"};
  }
  const std::string by = facts.signer.empty() ? "" : ", signed by " + facts.signer;
  return {kWhat, Grade::Bad, fmt::format("not loaded: {}{}", facts.file, by), "modprobe snbf"};
}

Finding judge_majors(bool loaded, const std::string& devices) {
  const char* const kWhat = "majors";
  if (loaded) return {kWhat, Grade::Good, "the driver has its own", ""};
  for (const auto& [section, parameter] : {std::pair{"Character devices:", "snbf_chr_major"},
                                           std::pair{"Block devices:", "snbf_blk_major"}}) {
    const std::string owner = owner_of(devices, section, kDeviceMajor);
    if (owner.empty()) continue;
    return {kWhat, Grade::Bad, fmt::format("{} is taken by {}", kDeviceMajor, owner),
            fmt::format("load it with another number: modprobe snbf {}=240", parameter)};
  }
  return {kWhat, Grade::Good, fmt::format("{} is free", kDeviceMajor), ""};
}

Finding judge_free_chunks(const std::string& type, bool end_known) {
  const char* const kWhat = "free space";
  const char* const kFix = "keep room for it: snaps and backups copy free space too";
  if (type.empty())
    return {kWhat, Grade::Warning, "no file system is recognised for certain", kFix};
  if (!has_reader(type)) {
    return {kWhat, Grade::Warning, fmt::format("the driver has no reader for {}", type), kFix};
  }
  if (!end_known) {
    return {kWhat, Grade::Warning,
            fmt::format("the superblock of the {} does not say where it ends", type),
            "check it with its own tool; until then backups copy free space too"};
  }
  return {kWhat, Grade::Good, fmt::format("that of the {} is not copied", type), ""};
}

Finding judge_uuid(const std::string& type, const std::vector<std::string>& others) {
  const char* const kWhat = "UUID";
  if (others.empty()) return {kWhat, Grade::Good, "no other device has it", ""};
  const char* const change = type == "xfs"               ? "xfs_admin -U generate"
                             : type.rfind("ext", 0) == 0 ? "tune2fs -U random"
                             : type == "reiserfs"        ? "reiserfstune -u random"
                                                         : "the file system's own tool";
  return {kWhat, Grade::Warning, "the same is on " + joined(others),
          fmt::format("give one of them another ({}), or mount by device file only", change)};
}

Finding judge_room(const std::string& what, const std::string& directory, bool exists,
                   uint64_t free_bytes, uint64_t wanted_bytes, const std::string& fix) {
  if (!exists) {
    return {what, Grade::Good, fmt::format("{}, which `snbf attach` makes", directory), ""};
  }
  const std::string text = fmt::format("{} free in {}", show_size(free_bytes), directory);
  if (free_bytes >= wanted_bytes) return {what, Grade::Good, text, ""};
  return {what, Grade::Warning, fmt::format("{}, {} wanted", text, show_size(wanted_bytes)), fix};
}

}  // namespace snbf
