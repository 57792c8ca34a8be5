// SPDX-License-Identifier: GPL-2.0-only
// snbf mount and umount: a snap's file system, read-only, and its log left alone.
#include <fmt/format.h>
#include <libmount/libmount.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "command.h"
#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "output.h"
#include "snap_mount.h"
#include "snaps.h"

namespace snbf {

namespace {

struct MountOptions {
  std::string snap;
  std::string dir;
  bool dry_run = false;
  bool json = false;
};

struct UmountOptions {
  std::string target;
  bool dry_run = false;
};

using Context = std::unique_ptr<libmnt_context, decltype(&mnt_free_context)>;

Context new_context() { return Context(mnt_new_context(), mnt_free_context); }

// What libmount makes of the end of a call, as a failure of ours.
void must_mount(libmnt_context* context, int rc, const std::string& doing) {
  char text[512] = "";
  const int status = mnt_context_get_excode(context, rc, text, sizeof text);
  if (status == 0) return;
  const int error =
      mnt_context_syscall_called(context) ? mnt_context_get_syscall_errno(context) : 0;
  if (error == EBUSY) throw failure_of(-EBUSY, doing);
  throw Failure(kFailed, fmt::format("{}: {}", doing, text[0] ? text : "it was refused"),
                "look at the end of `dmesg`", -error);
}

int mount(const MountOptions& options) {
  const Driver driver;
  const Snap snap = find_snap(driver, options.snap);
  if (!snap.readable()) {
    throw Failure(snap.state() == "lost" ? kSnapLost : kFailed,
                  fmt::format("{} cannot be mounted: {}", snap.name(), describe_state(snap)),
                  "`snbf snap list --tree` shows those that can");
  }
  const std::string device = snap_path(*snap.node);
  const std::string type = file_system_of(device);
  if (type.empty()) {
    throw Failure(kFailed, fmt::format("{} holds no file system that is recognised", snap.name()),
                  "read it as a device: " + device);
  }
  const std::string how = snap_mount_options(type);
  if (how.empty()) {
    throw Failure(kUnsafe, fmt::format("a snap of {} cannot be mounted beside its origin", type),
                  "copy it to another disk and mount that on another machine");
  }
  const std::string dir = std::filesystem::absolute(options.dir).lexically_normal();
  if (options.dry_run) {
    if (!std::filesystem::is_directory(dir)) throw failure_of(-ENOTDIR, "mounting at " + dir);
    note(fmt::format("would mount {} at {} as {} with {}", device, dir, type, how));
    return kDone;
  }
  const Context context = new_context();
  if (!context || mnt_context_set_source(context.get(), device.c_str()) != 0 ||
      mnt_context_set_target(context.get(), dir.c_str()) != 0 ||
      mnt_context_set_fstype(context.get(), type.c_str()) != 0 ||
      mnt_context_set_options(context.get(), how.c_str()) != 0) {
    throw failure_of(-ENOMEM, "mounting " + snap.name());
  }
  must_mount(context.get(), mnt_context_mount(context.get()),
             fmt::format("mounting {} at {}", snap.name(), dir));
  if (options.json) {
    print_json({{"snap", snap.name()},
                {"device", device},
                {"mounted_at", dir},
                {"type", type},
                {"options", how}});
  } else {
    fmt::print("{}\n", dir);
    note(fmt::format("{} is mounted as {}: {}", snap.name(), type, how));
  }
  return kDone;
}

// A directory, or a snap: then everywhere it is mounted.
std::vector<std::string> mount_points(const UmountOptions& options) {
  std::error_code ignored;
  const auto path = std::filesystem::weakly_canonical(options.target, ignored);
  if (options.target.find('/') != std::string::npos &&
      std::filesystem::is_directory(path, ignored)) {
    return {path};
  }
  const Driver driver;
  const Snap snap = find_snap(driver, options.target);
  auto found = snap.node ? mounts_of(device_of(snap_path(*snap.node))) : std::vector<std::string>{};
  if (found.empty()) {
    throw Failure(kFailed, snap.name() + " is not mounted", "`snbf mount` mounts it");
  }
  return found;
}

void refuse_if_not_mounted(const std::string& dir) {
  std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(
      mnt_new_table_from_file("/proc/self/mountinfo"), mnt_unref_table);
  if (table && mnt_table_find_target(table.get(), dir.c_str(), MNT_ITER_BACKWARD)) return;
  throw Failure(kFailed, "nothing is mounted at " + dir, "`snbf mount` mounts a snap there");
}

int umount(const UmountOptions& options) {
  for (const std::string& dir : mount_points(options)) {
    if (options.dry_run) {
      refuse_if_not_mounted(dir);
      note("would unmount " + dir);
      continue;
    }
    const Context context = new_context();
    if (!context || mnt_context_set_target(context.get(), dir.c_str()) != 0) {
      throw failure_of(-ENOMEM, "unmounting " + dir);
    }
    must_mount(context.get(), mnt_context_umount(context.get()), "unmounting " + dir);
    note(dir + " is unmounted");
  }
  return kDone;
}

}  // namespace

void add_mount(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<MountOptions>();
  CLI::App* verb = add_verb(app, chosen, "mount", "Mount a snap's file system, read-only",
                            "Example:\n  snbf mount monday /mnt/monday\n"
                            "  cp /mnt/monday/lost.txt . && snbf umount monday\n"
                            "The file system's log is not replayed, and its UUID may be that of "
                            "the origin, mounted beside.",
                            options, mount);
  verb->add_option("snap", options->snap, "Name, minor or device file")->required();
  verb->add_option("dir", options->dir, "Where; the directory must be there")->required();
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
  verb->add_flag("--json", options->json, "Print what was done as JSON");
}

void add_umount(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<UmountOptions>();
  CLI::App* verb = add_verb(app, chosen, "umount", "Unmount a snap",
                            "Example:\n  snbf umount monday", options, umount);
  verb->add_option("target", options->target, "The snap, or the directory")->required();
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
}

}  // namespace snbf
