// SPDX-License-Identifier: GPL-2.0-only
#include "findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
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
// Those that the driver is meant to build for.
constexpr std::pair<unsigned, unsigned> kOldest{6, 1};
constexpr std::pair<unsigned, unsigned> kNewest{6, 12};
constexpr unsigned kDeviceMajor = 100;  // the driver's default, of either kind
// Kept free by the kernel for local use, in both sections.
constexpr unsigned kLocalMajors[] = {240, 254};

std::pair<unsigned, unsigned> version_of(const std::string& release) {
  std::pair<unsigned, unsigned> version{0, 0};
  std::sscanf(release.c_str(), "%u.%u", &version.first, &version.second);
  return version;
}

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

unsigned free_major(const std::string& devices, const std::string& section) {
  unsigned major = kLocalMajors[0];
  while (major < kLocalMajors[1] && !owner_of(devices, section, major).empty()) ++major;
  return major;
}

const char* shown(SecureBoot state) {
  return state == SecureBoot::On ? "on" : state == SecureBoot::Off ? "off" : "unknown";
}

Finding none_installed(const ModuleFacts& facts) {
  const std::string headers = "linux-headers-" + facts.release;
  const std::string fix =
      !is_supported_kernel(facts.release)
          ? fmt::format("boot a supported kernel (Linux {}.{} to {}.{})", kOldest.first,
                        kOldest.second, kNewest.first, kNewest.second)
      : facts.packaged ? fmt::format("`apt-get install {}`, then `dkms autoinstall`", headers)
                       : fmt::format("install {}, then `make module install`", headers);
  return {"module", Grade::Bad, "none is installed for the running kernel", fix};
}

Finding judge_file(const ModuleFacts& facts) {
  if (facts.file.empty()) return none_installed(facts);
  if (facts.secure_boot == SecureBoot::On && facts.signer.empty()) {
    return {"module", Grade::Bad, facts.file + " is not signed",
            "sign it with an enrolled machine owner's key (mokutil --import)"};
  }
  const std::string by = facts.signer.empty() ? "" : ", signed by " + facts.signer;
  return {"module", Grade::Bad, fmt::format("not loaded: {}{}", facts.file, by), "modprobe snbf"};
}

Finding judge_loaded(const ModuleFacts& facts) {
  if (!facts.control) {
    return {"module", Grade::Bad, "loaded, but /dev/snbf/control is missing",
            "mount devtmpfs on /dev"};
  }
  return {"module", Grade::Good, about_loaded(facts), ""};
}

}  // namespace

bool is_supported_kernel(const std::string& release) {
  return version_of(release) >= kOldest && version_of(release) <= kNewest;
}

SecureBoot secure_boot_of(const std::string& firmware) {
  namespace fs = std::filesystem;
  const fs::path variables = fs::path(firmware) / "efi/efivars";
  std::error_code failed;
  if (!fs::exists(variables.parent_path(), failed)) return SecureBoot::Off;
  const fs::path variable = variables / "SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
  if (!fs::exists(variable, failed)) {
    // Not mounted, or a firmware that has no such thing.
    return fs::is_empty(variables, failed) || failed ? SecureBoot::Unknown : SecureBoot::Off;
  }
  char bytes[5];  // four of attributes, and the value
  std::ifstream file(variable, std::ios::binary);
  if (!file.read(bytes, sizeof bytes)) return SecureBoot::Unknown;
  return bytes[4] == 1 ? SecureBoot::On : SecureBoot::Off;
}

Finding judge_kernel(const std::string& release) {
  if (std::find(std::begin(kTested), std::end(kTested), version_of(release)) != std::end(kTested)) {
    return {"kernel", Grade::Good, release, ""};
  }
  return {
      "kernel", Grade::Warning, release,
      "the driver is tested on Linux 6.1 and 6.12 alone: boot one of them for data that matters"};
}

Finding judge_module(const ModuleFacts& facts) {
  Finding found = facts.loaded ? judge_loaded(facts) : judge_file(facts);
  found.text += fmt::format("; Secure Boot is {}", shown(facts.secure_boot));
  return found;
}

Finding judge_majors(bool loaded, const std::string& devices, bool early) {
  const char* const kWhat = "majors";
  if (loaded) return {kWhat, Grade::Good, "the driver has its own", ""};
  for (const auto& [section, parameter] : {std::pair{"Character devices:", "snbf_chr_major"},
                                           std::pair{"Block devices:", "snbf_blk_major"}}) {
    const std::string owner = owner_of(devices, section, kDeviceMajor);
    if (owner.empty()) continue;
    return {
        kWhat, Grade::Bad, fmt::format("{} is taken by {}", kDeviceMajor, owner),
        fmt::format("write `options snbf {}={}` into /etc/modprobe.d/snbf.conf, then {}`modprobe "
                    "snbf`",
                    parameter, free_major(devices, section),
                    early ? "`update-initramfs -u` and " : "")};
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
