// SPDX-License-Identifier: GPL-2.0-only
// snbf backup: one more point at a destination.
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "capture.h"
#include "command.h"
#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "output.h"
#include "plan.h"
#include "reasons.h"
#include "sizes.h"
#include "skipped.h"
#include "snaps.h"

namespace snbf {

namespace {

namespace fs = std::filesystem;

struct Options {
  std::string node;
  std::string destination;
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

std::string new_chain_name() {
  std::ifstream file("/proc/sys/kernel/random/uuid");
  std::string text;
  if (!std::getline(file, text)) throw Failure(kFailed, "the kernel gives no random name");
  return text;
}

std::optional<Level> asked_level(const std::string& text) {
  if (text == "full") return Level::Full;
  if (text == "incr") return Level::Incremental;
  if (text == "diff") return Level::Differential;
  return std::nullopt;
}

// Why nothing can stand on this point.
std::string damage_of(const Manifest& manifest, const Point& point,
                      const std::string& destination) {
  const std::string damage = chain_damage(manifest, point, destination, false);
  return damage.empty() ? skipped_damage(point, destination) : damage;
}

Plan make_plan(const Options& options, const snbf_info& node, const std::string& destination,
               const std::optional<Manifest>& manifest) {
  const libsnbf_state state = read_state(node);
  Situation situation;
  situation.asked = asked_level(options.level);
  situation.manifest = manifest ? &*manifest : nullptr;
  situation.distrust = state.distrust;
  situation.incr_point = state.incr_point;
  situation.diff_point = state.diff_point;
  situation.size = node.dev_size;
  situation.extent_size = node.extent_size;
  if (manifest && manifest->newest()) {
    situation.damage_newest = damage_of(*manifest, *manifest->newest(), destination);
  }
  if (manifest && manifest->newest_full()) {
    situation.damage_full = damage_of(*manifest, *manifest->newest_full(), destination);
  }
  return plan_backup(situation);
}

void check_destination(const Driver& driver, const snbf_info& node,
                       const std::string& destination) {
  if (driver.lies_on(destination, node)) {
    throw Failure(kUnsafe,
                  fmt::format("{} lies on the partition that is to be backed up", destination),
                  "choose a destination on another device");
  }
}

void check_owner(const Manifest& manifest, const snbf_info& node, const std::string& destination) {
  if (manifest.node_uuid == node.uuid || manifest.node == node.name) return;
  throw Failure(kUnsafe,
                fmt::format("{} holds backups of another node, {}", destination, manifest.node),
                "give each node a destination of its own");
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
    note(fmt::format("from a snap, with its COW files in {} ({} free)", how.cow_dir,
                     show_size(free_bytes_in(how.cow_dir))));
    return;
  }
  const auto mounts = mounts_of(device_of(node_path(node)));
  if (mounts.empty()) return;
  note(mounts.front() + (options.freeze ? " is frozen for the last part of the copy"
                                        : " is mounted and not frozen: the point is exact only if "
                                          "nothing is written meanwhile"));
}

// Whether there is a snap, and where its files lie. --cow asks for one.
void choose_snap(const Driver& driver, const snbf_info& node, const std::string& destination,
                 const Options& options, CaptureOptions* how) {
  const bool asked = !options.cow.empty();
  if (options.no_snap && asked) throw Failure(kMisused, "--no-snap and --cow do not go together");
  if (options.no_snap || (options.snap == "none" && !asked)) return;
  how->snap_required = asked || options.snap == "always";
  if (asked) {
    how->cow_dir = fs::weakly_canonical(options.cow);
    check_cow_dir(driver, node, how->cow_dir);
    return;
  }
  std::string why;
  const auto place = find_cow_place(driver, node, {bmp_dir_of(node), destination}, &why);
  if (place) {
    how->cow_dir = place->dir;
  } else if (how->snap_required) {
    throw Failure(kUnsafe, "no place for the snap's COW files: " + why,
                  "name a directory with --cow");
  } else {
    note("without a snap, because there is no place for its COW files: " + why);
  }
}

int report(const Point& point, const Options& options) {
  if (options.json) {
    print_json(point_json(point));
  } else {
    fmt::print("point {}: {}, {} in {} extents, file {} ({}), {:.1f} s\n", point.id,
               level_name(point.level), show_size(point.bytes), point.extents, point.file,
               show_size(point.file_bytes), point.seconds);
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
  if (point.exact()) return kDone;
  warn(
      "the device kept changing during the copy: this point is not of one moment. The next one "
      "copies what moved; a snap (--cow) or --freeze makes it exact");
  return kWarned;
}

int list_points(const Options& options) {
  const ChosenPoint at = choose_point(options.destination);
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

int backup(const Options& options) {
  if (options.list) return list_points(options);
  const Driver driver;
  const snbf_info node = driver.find(options.node);
  if (!node.started) {
    throw Failure(kFailed, fmt::format("{} is not started", node.name), "`snbf start` starts it");
  }
  const std::string destination = fs::absolute(options.destination).lexically_normal();
  check_destination(driver, node, destination);
  std::error_code failed;
  if (!options.dry_run) fs::create_directories(destination, failed);
  if (failed) throw failure_of(-failed.value(), "making " + destination);

  UniqueFd destination_lock;
  UniqueFd node_lock;
  if (!options.dry_run) {
    destination_lock = lock_file(destination + "/.lock", destination);
    node_lock = lock_file(fmt::format("{}/snbf{}.lock", bmp_dir_of(node), node.minor), node.name);
    const std::string recovered = recover_capture(driver, node);
    if (!recovered.empty()) note(recovered);
  }
  std::optional<Manifest> manifest = read_manifest(destination);
  if (manifest) check_owner(*manifest, node, destination);
  Plan plan = make_plan(options, node, destination, manifest);
  CaptureOptions how;
  how.whole = options.whole;
  how.freeze = options.freeze;
  how.freeze_limit = std::chrono::milliseconds(static_cast<int64_t>(options.freeze_limit_s * 1000));
  choose_snap(driver, node, destination, options, &how);
  say_plan(driver, node, plan, how, options);
  if (options.dry_run) {
    if (options.json) {
      print_json({{"level", level_name(plan.level)},
                  {"full_because", plan.why},
                  {"detail", plan.detail},
                  {"cow_dir", how.cow_dir}});
    }
    return kDone;
  }
  Manifest result = manifest.value_or(Manifest{});
  if (result.chain.empty()) result.chain = new_chain_name();
  // The plan's parent lives in `manifest`; the point is added to `result`.
  return report(capture(driver, node, plan, how, destination, &result), options);
}

}  // namespace

void add_backup(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "backup", "Copy what changed since the last backup into a chain of qcow2 images",
      "Examples:\n  snbf backup data /backups/data\n  snbf backup data /backups/data --cow "
      "/var/cow\n"
      "Levels: full, everything; incr, what changed since the last backup; diff, what changed "
      "since\n"
      "the last full one; auto, incr if that can be trusted, else full. A full backup says why it "
      "is\n"
      "full. The copy is made from a snap that lives as long as the backup: it is of one moment,\n"
      "whatever is written meanwhile. Its COW files lie in --cow, or with the bitmaps, or at the\n"
      "destination, where there is room; a snap that is lost on the way ends it with status 4, "
      "and\n"
      "no change is forgotten. What the file system does not use is left out, and reads as zeros "
      "in\nthe point; what lies behind its end is always copied. Without a snap a point is exact "
      "if nothing writes meanwhile, or "
      "with\n"
      "--freeze; one that is not ends with status 3.",
      options, backup);
  verb->add_option("node", options->node, "Name, minor, device file or partition")->required();
  verb->add_option("dest", options->destination, "Directory of the chain; made if need be")
      ->required();
  verb->add_option("--level", options->level, "auto, full, incr or diff")
      ->check(CLI::IsMember({"auto", "full", "incr", "diff"}));
  verb->add_option("--snap", options->snap,
                   "auto: from a snap if one can be made; always; none (default auto)")
      ->check(CLI::IsMember({"auto", "always", "none"}));
  verb->add_flag("--no-snap", options->no_snap, "The same as --snap none");
  verb->add_option("--cow", options->cow,
                   "Directory of the snap's files, on another disk; implies --snap always");
  verb->add_flag("--whole", options->whole, "Copy what the file system does not use, too");
  verb->add_flag("--freeze", options->freeze,
                 "Without a snap: freeze the file system for the last part of the copy");
  verb->add_option("--freeze-limit", options->freeze_limit_s,
                   "Seconds it may be frozen (default 10)")
      ->check(CLI::Range(0.1, 3600.0));
  verb->add_flag("--list", options->list, "Only list the points that are there");
  verb->add_flag("--dry-run", options->dry_run, "Say which level it would be, and why");
  verb->add_flag("--json", options->json, "Print the point as JSON");
}

}  // namespace snbf
