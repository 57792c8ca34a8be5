// SPDX-License-Identifier: GPL-2.0-only
// snbf doctor: what could go wrong here, each finding with its one fix.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "boot_files.h"
#include "command.h"
#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "findings.h"
#include "fs_end.h"
#include "fstab.h"
#include "output.h"
#include "snaps.h"

namespace snbf {

namespace {

namespace fs = std::filesystem;

constexpr uint64_t kBitmapRoom = 64 << 20;

struct Options {
  std::string partition;
  std::string bitmaps = "/var/lib/snbf";
  bool json = false;
};

std::string first_line(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// What modinfo(8) says of the module that would be loaded; empty if there is none.
std::string module_field(const char* field) {
  const Ran ran = run({"modinfo", "-F", field, "snbf"});
  return ran.status == 0 ? ran.output.substr(0, ran.output.find('\n')) : "";
}

// Put there by the package, or by `make install`.
bool dkms_has_sources() {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator("/usr/src", ignored)) {
    if (entry.path().filename().string().rfind("snbf-", 0) == 0) return true;
  }
  return false;
}

Finding check_module(bool loaded, const std::string& release) {
  ModuleFacts facts;
  facts.loaded = loaded;
  facts.control = fs::exists("/dev/snbf/control");
  facts.taints = first_line("/sys/module/snbf/taint");
  facts.release = release;
  facts.packaged = dkms_has_sources();
  facts.secure_boot = secure_boot_of("/sys/firmware");
  facts.file = module_field("filename");
  facts.signer = module_field("signer");
  return judge_module(facts);
}

Finding check_majors(bool loaded) {
  std::string devices;
  read_file("/proc/devices", &devices);
  const std::vector<BootNode> nodes = read_boot_nodes().nodes;
  const bool early = std::any_of(nodes.begin(), nodes.end(),
                                 [](const BootNode& node) { return !node.store.empty(); });
  return judge_majors(loaded, devices, early);
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
  return judge_room("bitmaps", directory, fs::exists(directory), free_bytes_in(directory),
                    kBitmapRoom, "make room: a bitmap that cannot be saved is lost with the power");
}

// What /etc/snbf/nodes would come to.
Finding check_boot() {
  const char* const kWhat = "at boot";
  const BootNodes file = read_boot_nodes();
  if (!file.problems.empty()) {
    return {kWhat, Grade::Bad, fmt::format("{}, {}", kBootFile, file.problems[0]),
            "correct that line; `snbf up --dry-run` shows what it comes to"};
  }
  try {
    in_boot_order(file.nodes, mounts_of_fstab());
  } catch (const Failure& ring) {
    return {kWhat, Grade::Bad, ring.what(), ring.remedy()};
  }
  for (const BootNode& node : file.nodes) {
    if (device_file_of(node.partition).empty()) {
      return {kWhat, Grade::Warning,
              fmt::format("the partition of {}, {}, is not there", node.name, node.partition),
              fmt::format("connect its disk, or `snbf detach --forget {}`", node.name)};
    }
    if (const auto past = mount_past(node); past) {
      return {kWhat, Grade::Warning, mount_past_text(*past), mount_past_fix(node)};
    }
  }
  const size_t count = file.nodes.size();
  return {kWhat, Grade::Good,
          count == 0
              ? "no node comes up by itself"
              : fmt::format("{} {}", count,
                            count == 1 ? "node comes up by itself" : "nodes come up by themselves"),
          ""};
}

// Other devices with a file system of that UUID. Nodes and snaps show their partition's, and are
// none.
std::vector<std::string> twins_of(dev_t device, const std::string& uuid) {
  std::vector<std::string> found;
  std::ifstream partitions("/proc/partitions");
  std::string line;
  while (!uuid.empty() && std::getline(partitions, line)) {
    char name[128];
    if (std::sscanf(line.c_str(), "%*u %*u %*u %127s", name) != 1) continue;
    const std::string path = std::string("/dev/") + name;
    if (device_of(path) == device || path.rfind("/dev/snbf", 0) == 0) continue;
    if (uuid_of(path) == uuid) found.push_back(path);
  }
  return found;
}

// Where the snaps of backups lie, unless somebody names another place.
Finding check_cow_room(const std::string& path, const std::string& directory) {
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const off_t size = file ? ::lseek(file.get(), 0, SEEK_END) : 0;
  return judge_room("COW files", directory, fs::exists(directory), free_bytes_in(directory),
                    cow_room_for(static_cast<uint64_t>(std::max<off_t>(size, 0))),
                    "make room, or name another directory with --cow");
}

void check_partition(const std::string& path, const std::string& bitmaps,
                     std::vector<Finding>* findings) {
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
  const std::string type = file_system_of(path);
  findings->push_back(judge_free_chunks(type, file_system_end(path, type).has_value()));
  findings->push_back(judge_uuid(type, twins_of(device, uuid_of(path))));
  findings->push_back(check_cow_room(path, bitmaps));
  findings->push_back({"other writers", Grade::Good,
                       "once attached, write through the node only: what goes straight to the "
                       "partition is not tracked",
                       ""});
}

int doctor(const Options& options) {
  utsname name{};
  ::uname(&name);
  const bool loaded = fs::exists("/proc/snbf");
  std::vector<Finding> findings = {
      judge_kernel(name.release), check_module(loaded, name.release), check_majors(loaded),
      check_programs(),           check_bitmaps(options.bitmaps),     check_boot()};
  if (!options.partition.empty()) check_partition(options.partition, options.bitmaps, &findings);
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
