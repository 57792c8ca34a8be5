// SPDX-License-Identifier: GPL-2.0-only
// snbf restore: a point of a chain, back onto a device or into a file.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <thread>

#include "command.h"
#include "convert.h"
#include "destination.h"
#include "failure.h"
#include "instant.h"
#include "output.h"
#include "restore_target.h"
#include "signals.h"
#include "sizes.h"

namespace snbf {

namespace {

struct Options {
  std::string source;
  std::string target;
  std::string instant;
  std::string scratch = "/var/lib/snbf";
  bool yes = false;
  std::optional<bool> compare;
  bool dry_run = false;
  bool json = false;
};

// What is written, and over what.
struct Job {
  ChosenPoint chosen;
  Target target;
  uint64_t data_bytes = 0;
  UniqueFd reading;  // nobody takes points away meanwhile

  std::string image() const { return chosen.destination + "/" + chosen.point.file; }
  std::string what() const {
    return fmt::format("point {} of {} ({}, {} of it data)", chosen.point.id, chosen.manifest.node,
                       show_size(chosen.manifest.size), show_size(data_bytes));
  }
};

Job check(const Options& options) {
  // The lock is a file: a rehearsal makes none.
  auto [chosen, lock] =
      options.dry_run ? HeldPoint{choose_point(options.source), {}} : hold_point(options.source);
  Job job{std::move(chosen), {}, 0, std::move(lock)};
  const Manifest& manifest = job.chosen.manifest;
  const Point& point = job.chosen.point;
  job.target = claim_target(options.target, job.chosen.destination);
  // First without the files' contents: what is refused is refused at once.
  for (const bool contents : {false, true}) {
    if (contents && (options.dry_run || !options.instant.empty())) break;
    const std::string damage = chain_damage(manifest, point, job.chosen.destination, contents);
    if (!damage.empty()) {
      throw Failure(kDiffers,
                    fmt::format("the chain below point {} is broken: {}", point.id, damage),
                    "choose an earlier point with DEST@POINT; nothing was written");
    }
    if (contents) continue;
    job.data_bytes = data_bytes_of(job.image());
    check_target(job.target, manifest.size, job.data_bytes, options.yes);
  }
  if (!point.exact()) {
    warn(fmt::format("point {} was taken while the device kept changing: it is not of one moment",
                     point.id));
  }
  return job;
}

Json job_json(const Job& job) {
  return {{"point", job.chosen.point.id},
          {"target", job.target.path},
          {"over", job.target.contents},
          {"size", job.chosen.manifest.size},
          {"data_bytes", job.data_bytes},
          {"chain", job.chosen.manifest.lineage(job.chosen.point).size()},
          {"exact", job.chosen.point.exact()}};
}

int rehearse(const Job& job, const Options& options) {
  if (options.json) {
    Json json = job_json(job);
    json["dry_run"] = true;
    print_json(json);
  } else {
    note(fmt::format("would write {} {} {}", job.what(),
                     job.target.contents.empty() ? "onto" : "over", job.target.describe()));
  }
  if (job.target.size_bytes > job.chosen.manifest.size) {
    note(fmt::format("what lies behind the first {} of it would stay as it is",
                     show_size(job.chosen.manifest.size)));
  }
  return kDone;
}

// A percentage as the bytes that the progress line counts.
class Share {
 public:
  Share(const char* doing, uint64_t total) : total_(total), line_(doing, total) {}
  void operator()(double percent) {
    percent_ = percent;
    const auto now = static_cast<uint64_t>(static_cast<double>(total_) * percent / 100);
    if (now > done_) line_.add(now - done_);
    done_ = std::max(done_, now);
  }
  double percent() const { return percent_; }

 private:
  uint64_t total_;
  uint64_t done_ = 0;
  double percent_ = 0;
  Progress line_;
};

Failure cut_off(const Job& job, double percent) {
  const std::string again = "run the same restore again";
  if (!job.target.is_device) {
    return {kFailed,
            fmt::format("interrupted at {:.0f} %: {} is {}", percent, job.target.path,
                        job.target.exists ? "as it was" : "not there"),
            again};
  }
  return {kFailed,
          fmt::format("interrupted at {:.0f} %: {} holds a part of point {} over what it held "
                      "before, and is of no use like this",
                      percent, job.target.path, job.chosen.point.id),
          again + ", with --yes: it begins at the start; the backup is unharmed"};
}

void write(const Job& job, const RawPlace& place) {
  Share share("restoring", job.chosen.manifest.size);
  const auto ended = write_out(
      job.image(), place, [&share](double percent) { share(percent); }, SignalsNoted::any);
  if (ended == Ended::Stopped) throw cut_off(job, share.percent());
}

void compare(const Job& job, const RawPlace& place) {
  Share share("comparing", job.chosen.manifest.size);
  std::optional<uint64_t> difference;
  const auto ended = compare_with(
      job.image(), place, [&share](double percent) { share(percent); }, SignalsNoted::any,
      &difference);
  if (ended == Ended::Stopped && !job.target.is_device) throw cut_off(job, share.percent());
  if (ended == Ended::Stopped) {
    throw Failure(kFailed,
                  fmt::format("interrupted: point {} is written to {}, but not compared",
                              job.chosen.point.id, job.target.path),
                  "run the same restore again, or compare it yourself: `qemu-img compare`");
  }
  if (!difference) return;
  throw Failure(kDiffers,
                fmt::format("{} differs from point {} after the restore, at byte {}",
                            job.target.path, job.chosen.point.id, *difference),
                "the target does not keep what is written to it: use another");
}

void tell_usable(const Job& job, const Options& options, const Instant& instant) {
  const std::string device = instant.stage() == Stage::Whole ? job.target.path : instant.device();
  if (options.json) {
    Json json = job_json(job);
    json["device"] = device;
    print_json(json);
  } else {
    fmt::print("{}\n", device);
  }
  std::fflush(stdout);
  if (instant.stage() != Stage::Copying) return;
  note(fmt::format("{} is there as {}: mount it now, it is copied to {} meanwhile", job.what(),
                   instant.device(), job.target.path));
}

// Until all is copied; false if a signal wants us to go, which ends nothing.
bool attend(const Job& job, const Instant& instant) {
  constexpr auto kLook = std::chrono::milliseconds(500);
  Share share("copying", job.chosen.manifest.size);
  for (;;) {
    share(instant.percent());
    if (share.percent() >= 100) return true;
    if (SignalsNoted::any()) return false;
    std::this_thread::sleep_for(kLook);
  }
}

InstantWish wish_of(const Options& options) {
  const ChosenPoint chosen = choose_point(options.source);
  InstantWish wish{options.instant,
                   std::filesystem::canonical(chosen.destination + "/" + chosen.point.file),
                   std::filesystem::weakly_canonical(options.scratch),
                   std::filesystem::weakly_canonical(options.target), chosen.manifest.size};
  if (!std::filesystem::is_block_file(wish.target)) {
    throw Failure(kMisused, wish.target + " is no block device",
                  "--instant takes one; a file is restored without it");
  }
  if (!std::filesystem::is_directory(wish.scratch)) throw failure_of(-ENOENT, wish.scratch);
  return wish;
}

// What is under way is of the point that it was begun with, whatever has become the newest since.
Job job_under_way(const Options& options, const Instant& instant) {
  Job job;
  job.chosen = choose_point(options.source);
  job.target.path = std::filesystem::weakly_canonical(options.target);
  const std::filesystem::path image = instant.image();
  const auto& points = job.chosen.manifest.points;
  const auto point = std::find_if(points.begin(), points.end(), [&image](const Point& point) {
    return point.file == image.filename();
  });
  std::error_code gone;
  if (point == points.end() ||
      !std::filesystem::equivalent(image, job.chosen.destination + "/" + point->file, gone)) {
    throw Failure(
        kBusy, fmt::format("what is being restored as {} is {}", options.instant, image.string()),
        "name the chain that it belongs to");
  }
  if (point->id != job.chosen.point.id) {
    note(fmt::format("{} is of point {}, and that is gone on with", options.instant, point->id));
  }
  job.chosen.point = *point;
  job.data_bytes = data_bytes_of(job.image());
  return job;
}

void tell_end(const Job& job, const Options& options, const Instant& instant) {
  if (instant.stage() == Stage::Whole) {
    note(
        fmt::format("{} has had all of it since before {} went: what was left of the restore is "
                    "taken away",
                    job.target.path, instant.device()));
    return;
  }
  note(fmt::format("{} has all of it, and {} is the same device now", job.target.path,
                   instant.device()));
  note(fmt::format("when it is not in use: `dmsetup remove {}`, and use {}", options.instant,
                   job.target.path));
}

void begin(Job& job, Instant& instant) {
  const bool left_over = instant.stage() == Stage::LeftOver;
  job.target.claim.reset();  // to be the mirror's
  instant.begin();
  if (left_over) note("what was written to it since is still there");
}

int restore_instantly(const Options& options) {
  Instant instant(wish_of(options));
  if (!options.dry_run) instant.take_over();
  Job job = instant.is_begun() ? job_under_way(options, instant) : check(options);
  if (options.dry_run) return rehearse(job, options);
  // Until here a signal ends us, and nothing has been written.
  const SignalsNoted signals;
  if (!instant.is_begun()) begin(job, instant);
  tell_usable(job, options, instant);
  if (!attend(job, instant)) {
    note("the copy goes on without us; the same command again looks after it, and ends it");
    return kDone;
  }
  instant.finish();
  tell_end(job, options, instant);
  return kDone;
}

int restore(const Options& options) {
  if (!options.instant.empty() && options.compare.value_or(false)) {
    throw Failure(kMisused, "--instant and --compare do not go together",
                  "leave one of them out: what is in use while it is copied changes");
  }
  if (!options.instant.empty()) return restore_instantly(options);
  const Job job = check(options);
  if (options.dry_run) return rehearse(job, options);
  const auto began = std::chrono::steady_clock::now();
  const bool with_compare = options.compare.value_or(true);
  const SignalsNoted signals;
  TargetFile file(job.target);
  const RawPlace place{file.path(), job.target.is_device, job.chosen.manifest.size};
  write(job, place);
  if (with_compare) compare(job, place);
  file.keep();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  if (options.json) {
    Json json = job_json(job);
    json["verified"] = with_compare;
    json["seconds"] = seconds;
    print_json(json);
  } else {
    fmt::print("{}: {}{}, {:.1f} s\n", job.target.path, job.what(),
               with_compare ? ", compared and equal" : "", seconds);
  }
  return job.chosen.point.exact() ? kDone : kWarned;
}

}  // namespace

void add_restore(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "restore", "Write a point back onto a device, or into a file",
      "Examples:\n  snbf restore /backups/data /dev/sdc1 --dry-run\n"
      "  snbf restore /backups/data /dev/sdc1\n  snbf restore /backups/data@2 old.img\n"
      "  snbf restore /backups/data /dev/sdc1 --instant shop\n"
      "The chain is checked before anything is written, and the target is read back from its disk\n"
      "and compared afterwards. A target that holds anything needs --yes; one that is mounted or\n"
      "too small is refused. A file is raw and sparse, and takes its name when it is whole. A "
      "restore\nthat is interrupted can only be run again: it says what the target holds then.\n"
      "With --instant the point can be mounted and written to within seconds, while the kernel\n"
      "copies it to the target; it is not compared. What is written goes to both, so whatever\n"
      "happens meanwhile, at its end too, the same command again goes on with it.",
      options, restore);
  verb->add_option("dest", options->source, "DEST for the newest point, or DEST@POINT")->required();
  verb->add_option("target", options->target, "Block device or file")->required();
  CLI::Option* instant = verb->add_option("--instant", options->instant,
                                          "Usable at once as /dev/mapper/NAME, copied meanwhile");
  verb->add_option("--scratch", options->scratch,
                   "With --instant: folder for what is written until all is copied (default "
                   "/var/lib/snbf)")
      ->needs(instant);
  verb->add_flag("--yes", options->yes, "Overwrite what the target holds");
  // Whether it is said at all counts too, and a flag of its own would begin as a 0.
  verb->add_flag_function(
      "--compare,!--no-compare,!--no-verify",
      [options](int64_t said) { options->compare = said > 0; },
      "Read the target back at the end and compare (default: yes)");
  verb->add_flag("--dry-run", options->dry_run, "Check all but the files' contents, write nothing");
  verb->add_flag("--json", options->json, "Print the result as JSON");
}

}  // namespace snbf
