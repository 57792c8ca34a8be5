// SPDX-License-Identifier: GPL-2.0-only
// snbf selftest: the driver's file-system readers, on a device.
#include <fmt/format.h>

#include <cerrno>
#include <filesystem>

#include "command.h"
#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "kernel_log.h"
#include "output.h"
#include "selftest.h"

namespace snbf {

namespace {

struct Options {
  std::string partition;
  bool json = false;
};

// The driver sees what is mounted on the partition, but not what is mounted on a node above it.
void refuse_below_a_mount(const Driver& driver, dev_t device, const std::string& path) {
  for (const snbf_info& node : driver.filters()) {
    if (partition_of(node) != device || mounts_of(device_of(node_path(node))).empty()) continue;
    throw Failure(kBusy, fmt::format("{} is mounted, by its node {}", path, node.name),
                  "unmount it, or test a snap of it");
  }
}

int selftest(const Options& options) {
  const std::string path = std::filesystem::weakly_canonical(options.partition);
  const dev_t device = device_of(path);
  if (device == 0) throw failure_of(-ENOTBLK, path);
  const Driver driver;
  refuse_below_a_mount(driver, device, path);
  const std::string contents = contents_of(path);
  KernelLog log;
  const int rc = libsnbf_test_datablock(driver.get(), path.c_str());
  const std::vector<std::string> lines = log.lines();
  const Verdict verdict = judge_selftest(rc, lines, contents);
  if (options.json) {
    print_json({{"partition", path},
                {"contents", contents},
                {"result", verdict.code},
                {"text", verdict.text},
                {"fix", verdict.fix},
                {"driver_said", rc == 0 ? std::vector<std::string>{} : lines}});
    return verdict.status;
  }
  fmt::print("{}: {}\n", path, verdict.text);
  if (rc == 0) return verdict.status;
  for (const std::string& line : lines) note("the driver said: " + line);
  if (!verdict.fix.empty()) note(verdict.fix);
  return verdict.status;
}

}  // namespace

void add_selftest(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "selftest", "Test the driver's reading of a file system that is not mounted",
      "Example:\n  snbf selftest /dev/sdb1\n"
      "The driver reads the file system's map of used blocks in many sizes and compares them. "
      "Nothing is\nwritten to the device; what was read stays in /tmp/bmp.CHUNK.COUNT, to be "
      "looked "
      "at. Status 7: they\ndiffer. A snap can be tested in place of a file system that is mounted.",
      options, selftest);
  verb->add_option("partition", options->partition, "Block device")->required();
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
