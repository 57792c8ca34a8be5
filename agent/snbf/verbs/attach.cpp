// SPDX-License-Identifier: GPL-2.0-only
// snbf attach: lay a filter node over a partition.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "attach.h"
#include "boot_files.h"
#include "command.h"
#include "driver.h"
#include "failure.h"
#include "fstab.h"
#include "output.h"
#include "reasons.h"
#include "sizes.h"
#include "start.h"
#include "values.h"

namespace snbf {

namespace {

constexpr const char* kBitmapDir = "/var/lib/snbf";

struct Options {
  std::string partition;
  std::string name;
  std::string bitmaps = kBitmapDir;
  std::string store;
  std::string extent = "64K";
  int minor = -1;
  bool start = false;
  bool at_boot = false;
  bool adopt = false;
  bool dry_run = false;
  bool json = false;
};

uint32_t parse_extent(const std::string& text) {
  const auto size = parse_extent_size(text);
  if (!size) {
    throw Failure(kMisused, fmt::format("{} is no extent size", text),
                  "use a power of two from 4K to 1G; 64K suits most");
  }
  return *size;
}

// What is written for the next boots.
BootNode boot_node(const Options& options, const std::string& partition) {
  BootNode node;
  node.name = options.name;
  node.partition = stable_name_of(partition);
  node.bitmaps = std::filesystem::absolute(options.bitmaps).lexically_normal();
  node.extent_size = parse_extent(options.extent);
  node.minor = options.minor;
  node.store = options.store.empty() ? "" : stable_name_of(options.store);
  return node;
}

void check(const Options& options, const std::string& partition) {
  if (!libsnbf_name_is_safe(options.name.c_str())) throw failure_of(-EILSEQ, options.name);
  if (device_of(partition) == 0) throw failure_of(-ENOTBLK, options.partition);
}

// A root that is in use can have its node at the next boot only.
int attach_early(const Options& options, const std::string& partition) {
  BootNode node = boot_node(options, partition);
  if (node.minor < 0) node.minor = minor_for_early(options.name, kBitmapDir);
  if (options.bitmaps == kBitmapDir) node.bitmaps = std::string(kEarlyStore) + "/snbf";
  if (options.dry_run) {
    note(fmt::format("would write into {}: {}", kBootFile, print_boot_node(node)));
    return kDone;
  }
  put_boot_node(node);
  note(fmt::format("{} comes up in the initramfs of the next boot", node.name));
  note("run `update-initramfs -u` now");
  return kDone;
}

int attach(const Options& options) {
  const std::string partition = std::filesystem::absolute(options.partition);
  AttachWish wish{partition,     options.name, options.bitmaps, parse_extent(options.extent),
                  options.minor, options.adopt};
  check(options, partition);
  if (!options.store.empty()) return attach_early(options, partition);
  const Driver driver;
  BootNode boot = options.at_boot ? boot_node(options, partition) : BootNode{};
  if (options.dry_run) {
    note(fmt::format("would attach {} as {} with extents of {} and bitmaps in {}{}{}", partition,
                     options.name, options.extent, options.bitmaps,
                     options.start ? ", and start it" : "",
                     options.at_boot ? ", now and at every boot" : ""));
    return kDone;
  }
  if (::mkdir(options.bitmaps.c_str(), 0700) < 0 && errno != EEXIST) {
    throw failure_of(-errno, "making " + options.bitmaps);
  }
  const Attached made = attach_node(driver, wish);
  const std::string& why = made.distrust;
  const uint32_t minor = made.node.minor;
  int status = kDone;
  if (options.start) status = start_node(driver, driver.info(minor), true);
  const snbf_info node = driver.info(minor);
  if (options.json) {
    Json json = node_json(node);
    json["bitmaps_trusted"] = why.empty();
    json["distrust"] = why;
    json["minor_before"] = made.minor_before < 0 ? Json(nullptr) : Json(made.minor_before);
    json["at_boot"] = options.at_boot;
    print_json(json);
  } else {
    fmt::print("{}\n", node_path(node));
    note(fmt::format("{} lies over {}{}", node.name, node.hdd_name,
                     node.started ? "; use the node in its place" : ", not started yet"));
    if (made.minor_before >= 0) note(minor_text(made));
    note(why.empty() ? "tracking goes on where it stopped"
                     : "every extent counts as changed: " + reason_text(why));
  }
  if (options.at_boot) {
    boot.minor = static_cast<int>(minor);  // its bitmap files are named by it
    put_boot_node(boot);
    tell_systemd(options.start ? boot.name : "");
    note(fmt::format("it comes up by itself at every boot: {}", kBootFile));
    warn_of_mount_past(boot);
  }
  return status;
}

}  // namespace

void add_attach(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(app, chosen, "attach",
                            "Lay a filter node over a partition, so that its changes are tracked",
                            "Example:\n  snbf attach /dev/sdb1 --name data --start --at-boot\n"
                            "  mount /dev/snbf/data /srv/data",
                            options, attach);
  verb->add_option("partition", options->partition, "The partition's device file")->required();
  verb->add_option("--name", options->name, "The node's name")->required();
  verb->add_option("--minor", options->minor,
                   "Its minor number (default: the last one it had, or a free one)")
      ->check(count());
  verb->add_option("--extent", options->extent, "Bytes that one bit stands for (default 64K)");
  verb->add_option("--bitmaps", options->bitmaps,
                   "Directory of the bitmap files, not on this partition (default /var/lib/snbf)");
  verb->add_flag("--start", options->start, "Start it as well");
  verb->add_flag("--adopt", options->adopt,
                 "Take over bitmap files that belong to another partition; every extent then "
                 "counts as changed");
  verb->add_flag("--at-boot", options->at_boot, "Bring it up at every boot (/etc/snbf/nodes)");
  verb->add_option("--store", options->store,
                   "For the root's partition: the file system that is to hold the bitmaps, on "
                   "another one; the node comes up in the initramfs of the next boot");
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
  verb->add_flag("--json", options->json, "Print the new node as JSON");
}

}  // namespace snbf
