// SPDX-License-Identifier: GPL-2.0-only
// snbf restore: a point of a chain, back onto a device or into a file.
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>

#include "command.h"
#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "output.h"
#include "sizes.h"

namespace snbf {

namespace {

struct Options {
  std::string source;
  std::string target;
  bool yes = false;
  bool no_verify = false;
  bool dry_run = false;
  bool json = false;
};

struct Target {
  bool exists = false;
  bool is_device = false;
  uint64_t size_bytes = 0;
  UniqueFd claim;  // of a device, for as long as the restore lasts
};

[[noreturn]] void refuse_busy(const Options& options, dev_t device) {
  std::string who;
  for (const std::string& holder : holders_of(device)) who += (who.empty() ? "" : ", ") + holder;
  throw Failure(kUnsafe,
                fmt::format("{} is in use: {}", options.target,
                            who.empty() ? "held from somewhere that cannot be seen" : who),
                "unmount it first; a restore never writes below a mounted file system");
}

Target claim_target(const Options& options) {
  Target target;
  struct stat about;
  if (::stat(options.target.c_str(), &about) < 0) {
    if (errno != ENOENT) throw failure_of(-errno, "looking at " + options.target);
    if (options.target.rfind("/dev/", 0) == 0) throw failure_of(-ENOENT, options.target);
    return target;
  }
  target.exists = true;
  target.is_device = S_ISBLK(about.st_mode);
  if (!target.is_device && !S_ISREG(about.st_mode)) {
    throw Failure(kMisused, options.target + " is neither a block device nor a file",
                  "give a partition, or a file to be made");
  }
  target.size_bytes = static_cast<uint64_t>(about.st_size);
  if (!target.is_device) return target;
  target.claim = UniqueFd(::open(options.target.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
  if (!target.claim && errno == EBUSY) refuse_busy(options, about.st_rdev);
  if (!target.claim) throw failure_of(-errno, "opening " + options.target);
  if (!mounts_of(about.st_rdev).empty()) refuse_busy(options, about.st_rdev);
  if (::ioctl(target.claim.get(), BLKGETSIZE64, &target.size_bytes) < 0) {
    throw failure_of(-errno, "asking the size of " + options.target);
  }
  return target;
}

void check_target(const Options& options, const Target& target, const ChosenPoint& chosen) {
  if (target.is_device && target.size_bytes < chosen.manifest.size) {
    throw Failure(kUnsafe,
                  fmt::format("{} is too small: {} instead of {} bytes", options.target,
                              target.size_bytes, chosen.manifest.size),
                  "choose a device of at least that size");
  }
  if (!target.exists || options.yes) return;
  const std::string contents = target.is_device ? contents_of(options.target) : "a file";
  if (contents.empty()) return;
  throw Failure(kUnsafe, fmt::format("{} is not empty: {}", options.target, contents),
                "say --yes to overwrite it");
}

// The first bytes of the target that the image covers; a larger device keeps its tail.
std::string target_json(const Options& options, const Target& target, uint64_t size_bytes) {
  const Json node = {
      {"driver", "raw"},
      {"size", size_bytes},
      {"file",
       {{"driver", target.is_device ? "host_device" : "file"}, {"filename", options.target}}}};
  return "json:" + node.dump();
}

std::string image_json(const ChosenPoint& chosen) {
  const Json node = {
      {"driver", "qcow2"},
      {"file", {{"driver", "file"}, {"filename", chosen.destination + "/" + chosen.point.file}}}};
  return "json:" + node.dump();
}

void write_target(const Options& options, const Target& target, const ChosenPoint& chosen) {
  const std::string image = chosen.destination + "/" + chosen.point.file;
  if (target.is_device) {
    run_or_throw({"qemu-img", "convert", "-n", "-f", "qcow2", "-O", "raw", "-m", "8", "-W", image,
                  options.target});
  } else {
    run_or_throw({"qemu-img", "convert", "-f", "qcow2", "-O", "raw", "-m", "8", "-W", image,
                  options.target});
  }
  sync_file(options.target);
}

// What was written is read back from the device, not from what the kernel remembers of it.
void forget_cached(const Options& options) {
  UniqueFd file(::open(options.target.c_str(), O_RDONLY | O_CLOEXEC));
  if (file) ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED);
}

void compare(const Options& options, const Target& target, const ChosenPoint& chosen) {
  forget_cached(options);
  const Ran ran = run({"qemu-img", "compare", "-q", image_json(chosen),
                       target_json(options, target, chosen.manifest.size)});
  if (ran.status == 0) return;
  if (ran.status == 1) {
    throw Failure(
        kDiffers,
        fmt::format("{} differs from point {} after the restore", options.target, chosen.point.id),
        "the target does not keep what is written to it: use another");
  }
  throw Failure(kFailed, "comparing failed: " + ran.errors);
}

int restore(const Options& given) {
  Options options = given;
  // As a path, whatever it looks like: the image tools know words that mean something else.
  options.target = std::filesystem::absolute(given.target).lexically_normal();
  const ChosenPoint chosen = choose_point(options.source);
  const std::string chain = std::filesystem::absolute(chosen.destination).lexically_normal().string() + "/";
  if (options.target.rfind(chain, 0) == 0) {
    throw Failure(kUnsafe, options.target + " lies in the backup itself", "choose a target elsewhere");
  }
  const Target target = claim_target(options);
  check_target(options, target, chosen);
  if (!chosen.point.exact()) {
    warn(fmt::format("point {} was taken while the device kept changing: it is not of one moment",
                     chosen.point.id));
  }
  const auto began = std::chrono::steady_clock::now();
  const std::string damage =
      chain_damage(chosen.manifest, chosen.point, chosen.destination, !options.dry_run);
  if (!damage.empty()) {
    throw Failure(kDiffers,
                  fmt::format("the chain below point {} is broken: {}", chosen.point.id, damage),
                  "choose an earlier point with DEST@POINT; nothing was written");
  }
  if (options.dry_run) {
    note(fmt::format("would write point {} ({}) onto {}", chosen.point.id,
                     show_size(chosen.manifest.size), options.target));
    return kDone;
  }
  write_target(options, target, chosen);
  if (!options.no_verify) compare(options, target, chosen);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  if (options.json) {
    print_json({{"point", chosen.point.id},
                {"target", options.target},
                {"size", chosen.manifest.size},
                {"chain", chosen.manifest.lineage(chosen.point).size()},
                {"verified", !options.no_verify},
                {"exact", chosen.point.exact()},
                {"seconds", seconds}});
  } else {
    fmt::print("{}: point {} of {}, {}{}, {:.1f} s\n", options.target, chosen.point.id,
               chosen.manifest.node, show_size(chosen.manifest.size),
               options.no_verify ? "" : ", compared and equal", seconds);
  }
  return chosen.point.exact() ? kDone : kWarned;
}

}  // namespace

void add_restore(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "restore", "Write a point back onto a device, or into a file",
      "Examples:\n  snbf restore /backups/data /dev/sdc1\n  snbf restore /backups/data@2 old.img\n"
      "The chain is checked before anything is written, and the target compared with it "
      "afterwards.\n"
      "A target that holds anything needs --yes; one that is mounted is refused.",
      options, restore);
  verb->add_option("dest", options->source, "DEST for the newest point, or DEST@POINT")->required();
  verb->add_option("target", options->target, "Block device or file")->required();
  verb->add_flag("--yes", options->yes, "Overwrite what the target holds");
  verb->add_flag("--no-verify", options->no_verify, "Do not compare at the end");
  verb->add_flag("--dry-run", options->dry_run, "Check everything, write nothing");
  verb->add_flag("--json", options->json, "Print the result as JSON");
}

}  // namespace snbf
