// SPDX-License-Identifier: GPL-2.0-only
// snbf prune: fewer points at a destination.
#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "command.h"
#include "destination.h"
#include "failure.h"
#include "files.h"
#include "held_chain.h"
#include "output.h"
#include "prune.h"
#include "retention.h"
#include "signals.h"
#include "sizes.h"
#include "values.h"

namespace snbf {

namespace {

struct Options {
  std::string destination;
  Retention keep;
  bool dry_run = false;
  bool json = false;
};

std::string step_text(const PruneStep& step) {
  return step.kind == PruneStep::Kind::Remove
             ? fmt::format("point {} is removed", step.point)
             : fmt::format("point {} is merged into point {}", step.point, step.into);
}

Json step_json(const PruneStep& step) {
  const bool merge = step.kind == PruneStep::Kind::Merge;
  return {{"point", step.point},
          {"action", merge ? "merge" : "remove"},
          {"into", merge ? Json(step.into) : Json(nullptr)}};
}

uint64_t bytes_of(const Manifest& manifest) {
  uint64_t sum = 0;
  for (const Point& point : manifest.points) sum += point.file_bytes;
  return sum;
}

Json report_json(const Options& options, const Manifest& before, const Manifest& after,
                 const PrunePlan& plan) {
  Json steps = Json::array();
  std::set<uint64_t> gone;
  for (const PruneStep& step : plan.steps) {
    steps.push_back(step_json(step));
    gone.insert(step.point);
  }
  if (after.merge) gone.insert(after.merge->from);  // it is no point any more
  Json points = Json::array();
  for (const Point& point : after.points) {
    if (!gone.contains(point.id)) points.push_back(point.id);
  }
  Json json = {{"destination", options.destination},
               {"steps", steps},
               {"needed_by_several", plan.needed},
               {"points", points},
               {"bytes_before", bytes_of(before)},
               {"bytes_after", options.dry_run ? Json(nullptr) : Json(bytes_of(after))}};
  if (options.dry_run) json["dry_run"] = true;
  return json;
}

int report(const Options& options, const Manifest& before, const Manifest& after,
           const PrunePlan& plan) {
  if (options.json) {
    print_json(report_json(options, before, after, plan));
    return kDone;
  }
  for (const PruneStep& step : plan.steps) fmt::print("{}\n", step_text(step));
  for (uint64_t id : plan.needed) {
    note(fmt::format("point {} stays: several points stand on it", id));
  }
  if (options.dry_run) {
    note("nothing was changed");
  } else {
    fmt::print("{} points, {} instead of {}\n", after.points.size(), show_size(bytes_of(after)),
               show_size(bytes_of(before)));
  }
  return kDone;
}

void end_if_signalled() {
  if (!SignalsNoted::any()) return;
  throw Failure(kFailed, "interrupted: the points that are kept restore as before",
                "the next `snbf prune` goes on from here");
}

void refuse_if_stood_on(const std::string& destination) {
  const auto restores = holders_of_chain(destination);
  if (restores.empty()) return;
  throw Failure(
      kBusy,
      fmt::format("{}: /dev/mapper/{} is being restored from it, and nothing is taken "
                  "away meanwhile",
                  destination, restores[0]),
      fmt::format("the same `snbf restore` again ends that; if it was given up, remove {}",
                  hold_file(destination, restores[0])));
}

int prune(const Options& options) {
  const ChosenPoint at = choose_point(options.destination);
  UniqueFd lock;
  UniqueFd readers;
  if (!options.dry_run) {
    lock = lock_file(at.destination + "/.lock", at.destination);
    readers = lock_file(readers_lock(at.destination), at.destination);
  }
  refuse_if_stood_on(at.destination);
  Manifest manifest = *read_manifest(at.destination);
  const bool unfinished = manifest.merge || !manifest.garbage.empty();
  if (options.keep.empty() && !unfinished) {
    throw Failure(kMisused, "nothing says what is to be kept",
                  "say --keep-last, --keep-daily, --keep-weekly or --keep-monthly");
  }
  if (unfinished && options.dry_run) {
    note("an earlier prune was cut off: what it had begun is finished first");
    if (options.json) print_json(report_json(options, manifest, manifest, {}));
    return kDone;
  }
  const Manifest before = manifest;
  const SignalsNoted signals;
  Pruner pruner(at.destination, &manifest, end_if_signalled);
  std::vector<PruneStep> removed;
  if (!options.keep.empty()) {
    removed = pruner.remove_meanwhile(kept_points(settled(manifest), options.keep));
  }
  if (pruner.mend()) note("an earlier prune was cut off; what it had begun is finished");
  PrunePlan plan;
  if (!options.keep.empty()) plan = plan_prune(manifest, kept_points(manifest, options.keep));
  Progress progress("merging", plan.steps.size());
  for (const PruneStep& step : plan.steps) {
    if (options.dry_run) break;
    pruner.run(step);
    progress.add(1);
  }
  plan.steps.insert(plan.steps.begin(), removed.begin(), removed.end());
  return report(options, before, manifest, plan);
}

}  // namespace

void add_prune(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "prune", "Take points out of a chain; those that stay restore as before",
      "Examples:\n  snbf prune /backups/data --keep-last 3 --keep-daily 7 --keep-weekly 4\n"
      "  snbf prune /backups/data --keep-last 10 --dry-run\n"
      "What one rule keeps, stays. Of a day, a week (from Monday) or a month in local time the\n"
      "newest point is kept. The newest point of all never goes. A point that another stands on\n"
      "is merged into that one with `qemu-img commit`; one that several stand on stays. A prune\n"
      "that was cut off is finished by the next, also without a rule.",
      options, prune);
  verb->add_option("dest", options->destination, "Directory of the chain")->required();
  verb->add_option("--keep-last", options->keep.last, "Keep so many of the newest points")
      ->check(count());
  verb->add_option("--keep-daily", options->keep.daily, "Keep one of each of so many days")
      ->check(count());
  verb->add_option("--keep-weekly", options->keep.weekly, "Keep one of each of so many weeks")
      ->check(count());
  verb->add_option("--keep-monthly", options->keep.monthly, "Keep one of each of so many months")
      ->check(count());
  verb->add_flag("--dry-run", options->dry_run, "Say what would go; change nothing");
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
