// SPDX-License-Identifier: GPL-2.0-only
// snbf backup: one more point at a destination.
#include <fmt/format.h>

#include <filesystem>

#include "backup_target.h"
#include "capture.h"
#include "command.h"
#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "output.h"
#include "reasons.h"
#include "sizes.h"
#include "snaps.h"
#include "store_nbd.h"
#include "values.h"

namespace snbf {

namespace {

namespace fs = std::filesystem;

struct Options {
  std::string node;
  std::string destination;
  std::string pipe;
  std::string before_freeze;
  std::string after_thaw;
  double hook_limit_s = 30;
  bool yes = false;
  std::string level = "auto";
  std::string snap = "auto";
  bool no_snap = false;
  std::string cow;
  bool whole = false;
  bool freeze = false;
  double freeze_limit_s = 10;
  bool list = false;
  bool dry_run = false;
  bool json = false;
};

std::optional<Level> asked_level(const std::string& text) {
  if (text == "full") return Level::Full;
  if (text == "incr") return Level::Incremental;
  if (text == "diff") return Level::Differential;
  return std::nullopt;
}

std::string full_because(const Plan& plan) {
  return reason_text(plan.why) + (plan.detail.empty() ? "" : ": " + plan.detail);
}

void say_plan(const Driver& driver, const snbf_info& node, const Plan& plan,
              const CaptureOptions& how, const Options& options) {
  if (plan.level == Level::Full) {
    note(fmt::format("full backup, because {}", full_because(plan)));
  } else {
    const auto type = plan.level == Level::Incremental ? SNBF_BMP_INCR : SNBF_BMP_DIFF;
    note(fmt::format("{} backup on top of point {}: {} to copy",
                     plan.level == Level::Incremental ? "incremental" : "differential",
                     plan.parent->id, show_size(driver.get(node, type).covered_bytes())));
  }
  if (!how.cow_dir.empty()) {
    note(fmt::format("from a snap, with its COW files in {} ({})", how.cow_dir,
                     fs::exists(how.cow_dir) ? show_size(free_bytes_in(how.cow_dir)) + " free"
                                             : "which a backup makes"));
    return;
  }
  const auto mounts = mounts_of(device_of(node_path(node)));
  if (mounts.empty()) return;
  note(mounts.front() + (options.freeze ? " is frozen for the last part of the copy"
                                        : " is mounted and not frozen: the point is exact only if "
                                          "nothing is written meanwhile"));
}

// Whether there is a snap, and where its files lie. --cow asks for one.
void choose_snap(const Driver& driver, const snbf_info& node, const BackupTarget& target,
                 const Options& options, CaptureOptions* how) {
  how->snap_required = !options.pipe.empty();
  if (how->snap_required && (options.no_snap || options.snap == "none")) {
    throw Failure(kMisused, "a program reads once, from beginning to end: that takes a snap");
  }
  const bool asked = !options.cow.empty();
  if (options.no_snap && asked) throw Failure(kMisused, "--no-snap and --cow do not go together");
  if (options.no_snap || (options.snap == "none" && !asked)) return;
  how->snap_required = how->snap_required || asked || options.snap == "always";
  if (asked) {
    if (!options.dry_run) make_private_folder(options.cow);
    how->cow_dir = fs::weakly_canonical(options.cow);
    if (fs::exists(how->cow_dir)) check_cow_dir(driver, node, how->cow_dir);
    return;
  }
  std::string why;
  std::vector<std::string> dirs{bmp_dir_of(node)};
  if (target.kind == BackupTarget::Kind::Directory) dirs.push_back(target.folder);
  const auto place = find_cow_place(driver, node, dirs, &why);
  if (place) {
    how->cow_dir = place->dir;
  } else if (how->snap_required) {
    throw Failure(kUnsafe, "no place for the snap's COW files: " + why,
                  "name a directory with --cow");
  } else {
    note("without a snap, because there is no place for its COW files: " + why);
  }
}

int report(const Captured& captured, const BackupTarget& target, const Options& options) {
  const Point& point = captured.point;
  if (options.json) {
    print_json(point_json(point));
  } else {
    fmt::print("point {}: {}, {} in {} extents, {}, {:.1f} s\n", point.id, level_name(point.level),
               show_size(point.bytes), point.extents,
               target.kind == BackupTarget::Kind::Directory
                   ? fmt::format("file {} ({})", point.file, show_size(point.file_bytes))
                   : "to " + target.place,
               point.seconds);
  }
  if (point.frozen_ms) {
    note(fmt::format("the file system was frozen for {}{} ms",
                     point.source == "snap" ? "no longer than " : "", point.frozen_ms));
  }
  if (point.moved_bytes) {
    note(fmt::format("{} was written during the copy, and copied again",
                     show_size(point.moved_bytes)));
  }
  if (!point.whole_because.empty()) {
    note("free space was copied too: " + point.whole_because);
  } else if (point.skipped_bytes != 0) {
    note(show_size(point.skipped_bytes) + " is left out: the file system does not use it");
  }
  if (captured.hook_failed) note("the point is complete, although the hook after the thaw failed");
  if (point.exact()) return captured.hook_failed ? kWarned : kDone;
  warn(
      "the device kept changing during the copy, or its disk did not come to rest: this point is "
      "not of one moment. The next one copies what moved; a snap (--cow) makes it exact, and so "
      "does --freeze on a disk that rests");
  return kWarned;
}

int list_points(const Options& options) {
  if (!options.pipe.empty()) {
    throw Failure(kMisused, "what a program keeps cannot be listed",
                  "give the destination of a chain, or leave --list out");
  }
  const ChosenPoint at = choose_point(
      is_nbd_uri(options.destination) ? nbd_folder(Driver().find(options.node), options.destination)
                                      : options.destination);
  Table table = point_table("FULL BECAUSE");
  Json points = Json::array();
  for (const Point& point : at.manifest.points) {
    points.push_back(point_json(point));
    table.add(point_cells(point, point.why.empty() ? "" : reason_text(point.why)));
  }
  if (options.json) {
    print_json({{"destination", at.destination}, {"node", at.manifest.node}, {"points", points}});
  } else {
    table.print(true);
  }
  return kDone;
}

uint64_t bytes_to_copy(const Driver& driver, const snbf_info& node, const Plan& plan) {
  if (plan.level == Level::Full) return node.dev_size;
  const uint32_t type = plan.level == Level::Incremental ? SNBF_BMP_INCR : SNBF_BMP_DIFF;
  return driver.get(node, type).covered_bytes();
}

int report_plan(const Driver& driver, const snbf_info& node, const BackupTarget& target,
                const Plan& plan, const CaptureOptions& how, const Options& options) {
  const uint64_t bytes = bytes_to_copy(driver, node, plan);
  if (options.json) {
    print_json({{"level", level_name(plan.level)},
                {"full_because", plan.why},
                {"detail", plan.detail},
                {"parent", plan.parent ? Json(plan.parent->id) : Json(nullptr)},
                {"bytes_at_most", bytes},
                {"from", how.cow_dir.empty() ? "device" : "snap"},
                {"cow_dir", how.cow_dir},
                {"to", target.place}});
  } else {
    fmt::print("would copy at most {} from {} of {} to {}\n", show_size(bytes),
               how.cow_dir.empty() ? "the device" : "a snap", node.name, target.place);
  }
  return kDone;
}

CaptureOptions capture_options(const Driver& driver, const snbf_info& node,
                               const BackupTarget& target, const Options& options) {
  CaptureOptions how;
  how.whole = options.whole;
  how.freeze = options.freeze;
  how.freeze_limit = milliseconds_of(options.freeze_limit_s);
  how.hooks = {options.before_freeze, options.after_thaw, milliseconds_of(options.hook_limit_s)};
  choose_snap(driver, node, target, options, &how);
  return how;
}

int backup(const Options& options) {
  if (options.list) return list_points(options);
  const Driver driver;
  const snbf_info node = driver.find(options.node);
  if (!node.started) {
    throw Failure(kFailed, fmt::format("{} is not started", node.name), "`snbf start` starts it");
  }
  const BackupTarget target = backup_target(driver, node, options.destination, options.pipe);
  UniqueFd target_lock;
  std::optional<NodeCapture> taken;
  if (!options.dry_run) {
    target_lock = lock_target(target);
    taken.emplace(driver, node);
    const std::string recovered = taken->recover();
    if (!recovered.empty()) note(recovered);
  }
  const auto manifest = manifest_at(target, node);
  const Plan plan =
      plan_for(driver, node, target, manifest, asked_level(options.level), options.yes);
  const CaptureOptions how = capture_options(driver, node, target, options);
  say_plan(driver, node, plan, how, options);
  if (options.dry_run) return report_plan(driver, node, target, plan, how, options);
  const auto store = store_for(target, node, manifest);
  return report(capture(driver, node, plan, how, &*taken, store.get()), target, options);
}

}  // namespace

void add_backup(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "backup", "Copy what changed since the last backup into a chain of qcow2 images",
      "Examples:\n  snbf backup data /backups/data\n"
      "  snbf backup data /backups/data --cow /var/cow\n"
      "  snbf backup data 'nbd+unix:///?socket=/run/nbd.sock'\n"
      "  snbf backup data --pipe 'restic backup --stdin --stdin-filename data.raw'\n"
      "  snbf backup data /backups/data --before-freeze ./rest --after-thaw ./go-on\n"
      "Levels: full, everything; incr, what changed since the last backup; diff, what changed\n"
      "since the last full one; auto, incr if that can be trusted, else full. A full backup says\n"
      "why it is full. The copy is made from a snap that lives as long as the backup: it is of\n"
      "one moment, whatever is written meanwhile. Its COW files lie in --cow, or with the\n"
      "bitmaps, or at the destination, where there is room; a snap that is lost on the way ends\n"
      "it with status 4, and no change is forgotten. What the file system does not use is left\n"
      "out, and reads as zeros in the point; what lies behind its end is always copied. Without a\n"
      "snap a point is exact if nothing writes meanwhile, or with --freeze; one that is not ends\n"
      "with status 3.\n\n"
      "A server's disk holds the newest point, in place: only what changed is written, and what\n"
      "is not from the last backup is overwritten with --yes alone. A program is given the whole\n"
      "image, free space as zeros; its exit status says whether it kept it. The bitmaps stay as\n"
      "they were then, and for status and metrics it is no last backup.\n\n"
      "If the hook before the freeze fails, nothing is backed up; the one after the thaw runs\n"
      "whatever happens, and if it fails the status is 3.",
      options, backup);
  verb->add_option("node", options->node, "Name, minor, device file or partition")->required();
  verb->add_option("dest", options->destination,
                   "Directory of the chain, made if need be; or the URI of an NBD server");
  verb->add_option("--pipe", options->pipe,
                   "In place of dest: a command that reads the whole image from its input");
  verb->add_flag("--yes", options->yes, "Overwrite what a server's disk holds");
  verb->add_option("--before-freeze", options->before_freeze,
                   "Command to run before the instant of the backup, to bring programs to rest");
  verb->add_option("--after-thaw", options->after_thaw,
                   "Command to run behind it, whatever happened; without a snap, behind the copy");
  verb->add_option(
          "--hook-limit", options->hook_limit_s,
          "Time that each hook may take, such as 30s or 2m (default 30s); then it is killed")
      ->transform(seconds_between(0.1, 86400));
  verb->add_option("--level", options->level, "auto, full, incr or diff")
      ->check(CLI::IsMember({"auto", "full", "incr", "diff"}));
  verb->add_option("--snap", options->snap,
                   "auto: from a snap if one can be made; always; none (default auto)")
      ->check(CLI::IsMember({"auto", "always", "none"}));
  verb->add_flag("--no-snap", options->no_snap, "The same as --snap none");
  verb->add_option("--cow", options->cow,
                   "Directory of the snap's files, on another disk, made if need be; implies "
                   "--snap always");
  verb->add_flag("--whole", options->whole, "Copy what the file system does not use, too");
  verb->add_flag("--freeze", options->freeze,
                 "Without a snap: freeze the file system for the last part of the copy");
  verb->add_option("--freeze-limit", options->freeze_limit_s,
                   "Time that it may be frozen, such as 500ms or 10s (default 10s)")
      ->transform(seconds_between(0.1, 3600));
  verb->add_flag("--list", options->list, "Only list the points that are there");
  verb->add_flag("--dry-run", options->dry_run, "Say which level it would be, why, and how much");
  verb->add_flag("--json", options->json, "Print the point as JSON");
}

}  // namespace snbf
