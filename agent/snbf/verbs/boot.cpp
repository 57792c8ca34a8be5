// SPDX-License-Identifier: GPL-2.0-only
// snbf up and down: the nodes of /etc/snbf/nodes, at boot and at shutdown and by hand.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include "attach.h"
#include "boot_files.h"
#include "boot_units.h"
#include "command.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "fstab.h"
#include "output.h"
#include "reasons.h"
#include "start.h"
#include "values.h"

namespace snbf {

namespace {

constexpr auto kRetry = std::chrono::milliseconds(200);
constexpr double kShutdownWait_s = 150;  // longer than a service may take to let a file system go

struct UpOptions {
  std::vector<std::string> names;
  bool initramfs = false;
  std::string root;
  bool dry_run = false;
};

struct DownOptions {
  std::vector<std::string> names;
  bool wait = false;
  double wait_limit_s = 60;
  bool shutdown = false;
  bool last = false;
  bool dry_run = false;
};

const snbf_info* named(const std::vector<snbf_info>& nodes, const std::string& name) {
  const auto found = std::find_if(nodes.begin(), nodes.end(),
                                  [&](const snbf_info& node) { return name == node.name; });
  return found == nodes.end() ? nullptr : &*found;
}

// What has to be there first.
void check_ground(const BootNode& node, const std::string& device) {
  if (device.empty()) {
    throw Failure(kFailed,
                  fmt::format("{}: its partition {} is not there", node.name, node.partition),
                  fmt::format("connect its disk, then `snbf up {}`; if it is gone for good, `snbf "
                              "detach --forget {}`",
                              node.name, node.name));
  }
  const std::string mount = missing_mount_of(node.bitmaps);
  if (!mount.empty()) {
    throw Failure(kFailed,
                  fmt::format("{}: its bitmaps lie in {}, and {} is not mounted", node.name,
                              node.bitmaps, mount),
                  fmt::format("`mount {}`, then `snbf up {}`", mount, node.name));
  }
  if (!std::filesystem::is_directory(node.bitmaps)) {
    throw Failure(
        kFailed,
        fmt::format("{}: the directory of its bitmaps, {}, is not there", node.name, node.bitmaps),
        "mount the file system that holds it; a new one is made with mkdir, and every "
        "extent then counts as changed");
  }
}

int bring_up(const UpOptions& options, const Driver& driver, const BootNode& node) {
  const std::vector<snbf_info> nodes = driver.filters();
  const snbf_info* present = named(nodes, node.name);
  if (present && present->started) {
    note(fmt::format("{} is up already: {}", node.name, node_path(*present)));
    return kDone;
  }
  if (options.dry_run) {
    note(fmt::format("would attach {} as {}, with bitmaps in {}, and start it", node.partition,
                     node.name, node.bitmaps));
    return kDone;
  }
  warn_of_mount_past(node);
  if (present) return start_node(driver, *present, true);
  const std::string device = device_file_of(node.partition);
  if (options.initramfs) mount_early_store(node);
  check_ground(node, device);
  const AttachWish wish{device, node.name, node.bitmaps, node.extent_size, node.minor, false};
  const Attached made = attach_node(driver, wish);
  const std::string& why = made.distrust;
  if (made.minor_before >= 0) note(minor_text(made));
  note(why.empty()
           ? fmt::format("{}: tracking goes on where it stopped", node.name)
           : fmt::format("{}: every extent counts as changed: {}", node.name, reason_text(why)));
  return start_node(driver, made.node, true);
}

// What the initramfs is to mount as the root: its script reads this.
void tell_root(const UpOptions& options, const Driver& driver) {
  const dev_t root = options.root.empty() ? 0 : device_of(device_file_of(options.root));
  for (const snbf_info& node : driver.filters()) {
    if (root != 0 && node.started && partition_of(node) == root) {
      fmt::print("ROOT={}\n", node_path(node));
    }
  }
}

// Those that are asked for, or all: but the initramfs has its own, and comes first.
std::vector<BootNode> chosen_nodes(const UpOptions& options, const BootNodes& file) {
  std::vector<BootNode> chosen;
  for (const std::string& name : options.names) {
    const BootNode* found = boot_node_of(file.nodes, name);
    if (!found) {
      throw Failure(kMisused, fmt::format("{} has no line of its own in {}", name, kBootFile),
                    "`snbf attach PARTITION --name " + name + " --at-boot` writes one");
    }
    chosen.push_back(*found);
  }
  if (!options.names.empty()) return chosen;
  for (const BootNode& node : file.nodes) {
    if (node.store.empty() != options.initramfs) chosen.push_back(node);
  }
  return chosen;
}

// One that fails does not hold the others up. The first status that is not "done" is the answer.
template <class Nodes, class Step>
int for_each_of(const Nodes& nodes, int status, Step step) {
  for (const auto& node : nodes) {
    int rc = kDone;
    try {
      rc = step(node);
    } catch (const Failure& failure) {
      warn(failure.what());
      if (!failure.remedy().empty()) note("      " + failure.remedy());
      rc = failure.status();
    }
    if (status == kDone) status = rc;
  }
  return status;
}

int up(const UpOptions& options) {
  const BootNodes file = read_boot_nodes();
  int status = kDone;
  for (const std::string& problem : file.problems) {
    warn(fmt::format("{}, {}", kBootFile, problem));
    if (options.names.empty()) status = kMisused;
  }
  const auto nodes = in_boot_order(chosen_nodes(options, file), mounts_of_fstab());
  if (nodes.empty()) {
    note(fmt::format("{} names no node to bring up", kBootFile));
    return status;
  }
  const Driver driver;
  status = for_each_of(nodes, status,
                       [&](const BootNode& node) { return bring_up(options, driver, node); });
  tell_root(options, driver);
  return status;
}

bool system_goes_down() {
  return run({"systemctl", "is-system-running"}).output.rfind("stopping", 0) == 0;
}

// Mounted until the power goes; and its bitmaps lie where nothing is unmounted either.
bool stays_to_the_end(const snbf_info& node) {
  const auto mounts = mounts_of(device_of(node_path(node)));
  const bool holds_system = std::any_of(mounts.begin(), mounts.end(), [](const std::string& at) {
    return at == "/" || at == "/usr";
  });
  return holds_system && bmp_dir_of(node).rfind(kEarlyStore, 0) == 0;
}

int stop_within(const Driver& driver, const snbf_info& node, double limit_s) {
  const auto give_up = std::chrono::steady_clock::now() + milliseconds_of(limit_s);
  int rc;
  while ((rc = libsnbf_stop(driver.get(), node.minor)) == -EBUSY &&
         std::chrono::steady_clock::now() < give_up) {
    std::this_thread::sleep_for(kRetry);
  }
  return rc;
}

// The node stays in use while what it stands on goes: its files must not look clean later.
int leave(const Driver& driver, const snbf_info& node, bool last) {
  if (last) {
    const int rc = libsnbf_rest(driver.get(), node.minor);
    if (rc == 0) {
      note(fmt::format("{} is read-only, and its bitmaps are saved", node.name));
      return kDone;
    }
    warn(failure_of(rc, fmt::format("saving the bitmaps of {}", node.name)).what());
  }
  must(libsnbf_leave_dirty(driver.get(), node.minor),
       fmt::format("flagging the bitmaps of {}", node.name));
  warn(fmt::format("{} is still in use ({}): its bitmaps are flagged, and its next backup is full",
                   node.name, joined(holders_of(device_of(node_path(node))))));
  return kBusy;
}

int take_down(const DownOptions& options, const Driver& driver, const snbf_info& node) {
  if (!node.started) return kDone;
  if (options.dry_run) {
    note(fmt::format("would stop {}", node.name));
    return kDone;
  }
  if (options.shutdown && stays_to_the_end(node)) {
    note(fmt::format("{} holds the root: it is saved last", node.name));
    return kDone;
  }
  const double limit_s = options.shutdown ? kShutdownWait_s
                         : options.wait   ? options.wait_limit_s
                                          : 2;
  const int rc = stop_within(driver, node, options.last ? 0 : limit_s);
  if (rc == -EBUSY && (options.shutdown || options.last)) return leave(driver, node, options.last);
  if (rc == -EBUSY) {
    throw Failure(kBusy,
                  fmt::format("stopping {}: it is in use: {}", node.name,
                              joined(holders_of(device_of(node_path(node))))),
                  "unmount it first, or wait for that with --wait");
  }
  must(rc, fmt::format("stopping {}", node.name));
  note(fmt::format("{} is stopped; its bitmaps are saved in {}", node.name, bmp_dir_of(node)));
  return kDone;
}

// Those that are asked for, or all that there are; what holds another's bitmaps goes after it.
std::vector<snbf_info> nodes_to_end(const DownOptions& options, const Driver& driver) {
  std::vector<snbf_info> nodes;
  for (const std::string& name : options.names) nodes.push_back(driver.find(name));
  if (nodes.empty()) nodes = driver.filters();
  const auto ordered = in_boot_order(read_boot_nodes().nodes, mounts_of_fstab());
  const auto place = [&](const snbf_info& node) {
    const auto found = std::find_if(ordered.begin(), ordered.end(),
                                    [&](const BootNode& other) { return other.name == node.name; });
    return found - ordered.begin();
  };
  std::stable_sort(nodes.begin(), nodes.end(), [&](const snbf_info& one, const snbf_info& other) {
    return place(one) > place(other);
  });
  return nodes;
}

int down(const DownOptions& given) {
  DownOptions options = given;
  if (options.shutdown && !system_goes_down()) options.shutdown = false;
  const Driver driver;
  return for_each_of(nodes_to_end(options, driver), kDone,
                     [&](const snbf_info& node) { return take_down(options, driver, node); });
}

struct UnitOptions {
  std::string folder;
};

int make_units(const UnitOptions& options) {
  const BootNodes file = read_boot_nodes();
  for (const std::string& problem : file.problems) {
    const std::string line = fmt::format("{}, {}", kBootFile, problem);
    warn(line);
    tell_kernel_log(line);
  }
  write_boot_units(options.folder, units_for(file.nodes, mounts_of_fstab()));
  return kDone;
}

}  // namespace

void add_up(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<UpOptions>();
  CLI::App* verb =
      add_verb(app, chosen, "up", "Attach and start the nodes of /etc/snbf/nodes, as at a boot",
               "Example:\n  snbf up\n  snbf up data", options, up);
  verb->add_option("names", options->names, "Only these");
  verb->add_flag("--initramfs", options->initramfs, "Those with store=, as the initramfs does");
  verb->add_option("--root", options->root, "With --initramfs: say which node lies over this");
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
  auto units = std::make_shared<UnitOptions>();
  CLI::App* hidden =
      add_verb(app, chosen, "boot-units", "For systemd's generator", "", units, make_units);
  hidden->add_option("folder", units->folder, "Where the units go")->required();
  hidden->group("");
}

void add_down(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<DownOptions>();
  CLI::App* verb =
      add_verb(app, chosen, "down", "Stop nodes and save their bitmaps, as at a shutdown",
               "Example:\n  umount /srv/data && snbf down data", options, down);
  verb->add_option("names", options->names, "Only these (default: all that are attached)");
  verb->add_flag("--wait", options->wait, "Wait while one is in use");
  verb->add_option("--timeout", options->wait_limit_s,
                   "Time that --wait waits, such as 30s or 2m (default 1m)")
      ->transform(seconds_between(0, kWaitMost_s));
  verb->add_flag("--shutdown", options->shutdown,
                 "While systemd shuts down: wait, and flag the bitmaps of what stays in use");
  verb->add_flag("--last", options->last,
                 "When the root is read-only: save the bitmaps of what stays mounted");
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
}

}  // namespace snbf
