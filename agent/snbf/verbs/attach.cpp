// SPDX-License-Identifier: GPL-2.0-only
// snbf attach: lay a filter node over a partition.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "command.h"
#include "driver.h"
#include "failure.h"
#include "output.h"
#include "reasons.h"
#include "sizes.h"
#include "start.h"

namespace snbf {

namespace {

struct Options {
  std::string partition;
  std::string name;
  std::string bitmaps = "/var/lib/snbf";
  std::string extent = "64K";
  int minor = -1;
  bool start = false;
  bool dry_run = false;
  bool json = false;
};

uint32_t parse_extent(const std::string& text) {
  const auto size = parse_size(text);
  if (!size || *size < 4096 || *size > (uint64_t{1} << 30) || (*size & (*size - 1)) != 0) {
    throw Failure(kMisused, fmt::format("{} is no extent size", text),
                  "use a power of two from 4K to 1G; 64K suits most");
  }
  return static_cast<uint32_t>(*size);
}

Failure refusal(int rc, const Options& options, const Driver& driver) {
  const Failure plain = failure_of(rc, fmt::format("attaching {}", options.partition));
  for (const snbf_info& node : driver.filters()) {
    if (rc == -EINVAL && device_of(node.hdd_name) == device_of(options.partition)) {
      return {kFailed,
              fmt::format("attaching {}: the node {} lies over it already", options.partition,
                          node.name),
              "use that node, or detach it first", rc};
    }
    if (rc == -EINVAL && options.minor >= 0 && node.minor == static_cast<uint32_t>(options.minor)) {
      return {kFailed, fmt::format("the minor {} belongs to the node {}", options.minor, node.name),
              "leave --minor out, or choose another", rc};
    }
  }
  if (rc != -EBUSY) return plain;
  std::string who = joined(holders_of(device_of(options.partition)));
  if (who.empty()) who = "somebody who cannot be seen from here holds it";
  return {kBusy, fmt::format("attaching {}: the partition is in use: {}", options.partition, who),
          "unmount it first; after the attach, mount the node in its place", rc};
}

int attach(const Options& options) {
  const Driver driver;
  libsnbf_attach_request request{};
  const std::string partition = std::filesystem::absolute(options.partition);
  request.partition = partition.c_str();
  request.name = options.name.c_str();
  request.minor = options.minor;
  request.extent_size = parse_extent(options.extent);
  if (!libsnbf_name_is_safe(request.name)) throw failure_of(-EILSEQ, options.name);
  if (device_of(partition) == 0) throw failure_of(-ENOTBLK, options.partition);
  if (options.dry_run) {
    note(fmt::format("would attach {} as {} with extents of {} and bitmaps in {}{}", partition,
                     options.name, options.extent, options.bitmaps,
                     options.start ? ", and start it" : ""));
    return kDone;
  }
  if (::mkdir(options.bitmaps.c_str(), 0700) < 0 && errno != EEXIST) {
    throw failure_of(-errno, "making " + options.bitmaps);
  }
  const std::string bitmaps = std::filesystem::canonical(options.bitmaps);
  request.bmp_dir = bitmaps.c_str();
  if (int rc = libsnbf_attach(driver.get(), &request); rc != 0) throw refusal(rc, options, driver);
  int status = kDone;
  if (options.start) {
    status = start_node(driver, driver.info(request.minor_used), true);
  }
  const snbf_info node = driver.info(request.minor_used);
  const std::string why = request.distrust;
  if (options.json) {
    Json json = node_json(node);
    json["bitmaps_trusted"] = why.empty();
    json["distrust"] = why;
    print_json(json);
  } else {
    fmt::print("{}\n", node_path(node));
    note(fmt::format("{} lies over {}{}", node.name, node.hdd_name,
                     node.started ? "; use the node in its place" : ", not started yet"));
    note(why.empty() ? "tracking goes on where it stopped"
                     : "every extent counts as changed: " + reason_text(why));
  }
  return status;
}

}  // namespace

void add_attach(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "attach", "Lay a filter node over a partition, so that its changes are tracked",
      "Example:\n  snbf attach /dev/sdb1 --name data --start\n  mount /dev/snbf/snbf0 /srv/data",
      options, attach);
  verb->add_option("partition", options->partition, "The partition's device file")->required();
  verb->add_option("--name", options->name, "The node's name")->required();
  verb->add_option("--minor", options->minor,
                   "Its minor number (default: the last one it had, or a free one)");
  verb->add_option("--extent", options->extent, "Bytes that one bit stands for (default 64K)");
  verb->add_option("--bitmaps", options->bitmaps,
                   "Directory of the bitmap files, not on this partition (default /var/lib/snbf)");
  verb->add_flag("--start", options->start, "Start it as well");
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
  verb->add_flag("--json", options->json, "Print the new node as JSON");
}

}  // namespace snbf
