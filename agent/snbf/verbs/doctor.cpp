// SPDX-License-Identifier: GPL-2.0-only
// snbf doctor: what could go wrong here, each finding with its one fix.
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "command.h"
#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "output.h"
#include "sizes.h"

namespace snbf {

namespace {

namespace fs = std::filesystem;

// The kernels that every change is tested on.
constexpr unsigned kMajorTested = 6;
constexpr unsigned kMinorTested = 1;
constexpr uint64_t kRoomBytes = 64 << 20;

struct Options {
  std::string partition;
  std::string bitmaps = "/var/lib/snbf";
  bool json = false;
};

enum class Grade { Good, Warning, Bad };

struct Finding {
  std::string what;
  Grade grade;
  std::string text;
  std::string fix;
};

Finding check_kernel() {
  utsname name{};
  ::uname(&name);
  unsigned major = 0;
  unsigned minor = 0;
  std::sscanf(name.release, "%u.%u", &major, &minor);
  const bool known = major == kMajorTested && minor == kMinorTested;
  return {"kernel", known ? Grade::Good : Grade::Warning, name.release,
          known ? "" : "the driver is tested on Linux 6.1 alone: boot that for data that matters"};
}

Finding check_driver() {
  struct stat about;
  const bool loaded = ::stat("/proc/snbf", &about) == 0;
  const bool control = ::stat("/dev/snbf/control", &about) == 0;
  if (loaded && control) return {"driver", Grade::Good, "loaded", ""};
  if (loaded)
    return {"driver", Grade::Bad, "loaded, but /dev/snbf/control is missing",
            "mount devtmpfs on /dev"};
  return {"driver", Grade::Bad, "not loaded", "modprobe snbf"};
}

Finding check_secure_boot() {
  for (const char* path :
       {"/sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c"}) {
    std::string bytes;
    if (!read_file(path, &bytes)) continue;
    if (bytes.size() == 5 && bytes[4] == 1) {
      return {"secure boot", Grade::Warning, "on: the kernel loads signed modules only",
              "sign the module with an enrolled machine owner's key"};
    }
  }
  return {"secure boot", Grade::Good, "off", ""};
}

Finding check_programs() {
  for (const char* program : {"qemu-img", "qemu-nbd"}) {
    if (run({program, "--version"}).status != 0) {
      return {"programs", Grade::Bad, fmt::format("{} does not run", program),
              "apt-get install qemu-utils"};
    }
  }
  return {"programs", Grade::Good, "qemu-img and qemu-nbd run", ""};
}

Finding check_bitmaps(const std::string& directory) {
  struct statvfs room {};
  if (::statvfs(directory.c_str(), &room) < 0) {
    return {"bitmaps", Grade::Warning, directory + " does not exist yet", "`snbf attach` makes it"};
  }
  const uint64_t free_bytes = uint64_t{room.f_bavail} * room.f_frsize;
  return {"bitmaps", free_bytes < kRoomBytes ? Grade::Warning : Grade::Good,
          fmt::format("{} free in {}", show_size(free_bytes), directory),
          free_bytes < kRoomBytes
              ? "make room: a bitmap that cannot be saved is lost with the power"
              : ""};
}

void check_partition(const std::string& path, std::vector<Finding>* findings) {
  const dev_t device = device_of(path);
  if (device == 0) {
    findings->push_back(
        {"partition", Grade::Bad, path + " is not a block device", "give a partition"});
    return;
  }
  const std::string contents = contents_of(path);
  findings->push_back(
      {"contents", Grade::Good, contents.empty() ? "nothing that is recognised" : contents, ""});
  const auto holders = holders_of(device);
  findings->push_back({"in use", holders.empty() ? Grade::Good : Grade::Bad,
                       holders.empty() ? "nobody holds it" : joined(holders),
                       holders.empty() ? "" : "unmount it before it is attached"});
  findings->push_back({"other writers", Grade::Good,
                       "once attached, write through the node only: what goes straight to the "
                       "partition is not tracked",
                       ""});
}

int doctor(const Options& options) {
  std::vector<Finding> findings = {check_kernel(), check_driver(), check_secure_boot(),
                                   check_programs(), check_bitmaps(options.bitmaps)};
  if (!options.partition.empty()) check_partition(options.partition, &findings);
  Grade worst = Grade::Good;
  Json list = Json::array();
  static constexpr const char* kNames[] = {"good", "warning", "bad"};
  for (const Finding& finding : findings) {
    worst = std::max(worst, finding.grade);
    const char* grade = kNames[static_cast<int>(finding.grade)];
    list.push_back(
        {{"what", finding.what}, {"grade", grade}, {"text", finding.text}, {"fix", finding.fix}});
    if (options.json) continue;
    fmt::print("{:<8} {:<14} {}\n", grade, finding.what, finding.text);
    if (!finding.fix.empty()) fmt::print("{:<8} {:<14} fix: {}\n", "", "", finding.fix);
  }
  if (options.json) print_json({{"findings", list}});
  const bool ready = findings[0].grade != Grade::Bad && findings[1].grade != Grade::Bad;
  if (!ready) return kNoDriver;
  return worst == Grade::Bad ? kFailed : worst == Grade::Warning ? kWarned : kDone;
}

}  // namespace

void add_doctor(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb =
      add_verb(app, chosen, "doctor", "Look for what could go wrong, and say how to cure it",
               "Example:\n  snbf doctor /dev/sdb1", options, doctor);
  verb->add_option("partition", options->partition, "A partition that is to be attached");
  verb->add_option("--bitmaps", options->bitmaps, "Directory of the bitmap files");
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
