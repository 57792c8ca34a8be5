// SPDX-License-Identifier: GPL-2.0-only
#include "prune.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "attended.h"
#include "failure.h"
#include "files.h"
#include "signals.h"
#include "sizes.h"
#include "snaps.h"

namespace snbf {

namespace {

uint64_t size_of(const std::string& path) {
  struct stat about;
  if (::stat(path.c_str(), &about) < 0) throw failure_of(-errno, "looking at " + path);
  return static_cast<uint64_t>(about.st_size);
}

bool is_there(const std::string& path) {
  struct stat about;
  return ::stat(path.c_str(), &about) == 0;
}

void erase_point(Manifest* manifest, uint64_t id) {
  std::erase_if(manifest->points, [id](const Point& point) { return point.id == id; });
}

Point& point_in(Manifest* manifest, uint64_t id) {
  for (Point& point : manifest->points) {
    if (point.id == id) return point;
  }
  throw Failure(kDiffers, fmt::format("the manifest has no point {}", id));
}

void throw_away(Manifest* manifest, const std::string& file) {
  if (!file.empty()) manifest->garbage.push_back(file);
}

}  // namespace

Manifest settled(Manifest manifest) {
  if (!manifest.merge) return manifest;
  const Merge merge = *manifest.merge;
  const Point from = point_in(&manifest, merge.from);
  Point& merged = point_in(&manifest, merge.into);
  merged.parent = from.parent;
  merged.level = from.level;
  merged.why = from.why;
  merged.detail = from.detail;
  merged.merged_from = from.merged_from ? from.merged_from : from.id;
  merged.hash = merge.hash;
  merged.file_bytes = merge.file_bytes;
  throw_away(&manifest, from.skipped_file);
  erase_point(&manifest, from.id);
  manifest.merge.reset();
  return manifest;
}

Pruner::Pruner(const std::string& destination, Manifest* manifest, std::function<void()> on_step,
               FreeBytes free_bytes)
    : destination_(destination),
      manifest_(*manifest),
      on_step_(std::move(on_step)),
      free_bytes_(free_bytes ? std::move(free_bytes) : free_bytes_in) {}

void Pruner::save(const Manifest& next) {
  on_step_();
  replace_file(manifest_path(destination_), to_json_text(next));
  manifest_ = next;
}

// What no point needs any more goes once the manifest says so.
void Pruner::sweep() {
  if (manifest_.garbage.empty()) return;
  for (const std::string& file : manifest_.garbage) {
    on_step_();
    remove_file(path(file));
  }
  sync_directory(destination_);
  Manifest next = manifest_;
  next.garbage.clear();
  save(next);
}

bool Pruner::mend() {
  const bool left = manifest_.merge || !manifest_.garbage.empty();
  if (manifest_.merge) finish_merge();
  sweep();
  return left;
}

std::vector<PruneStep> Pruner::remove_meanwhile(const std::set<uint64_t>& kept) {
  std::vector<PruneStep> removed;
  if (!manifest_.merge) return removed;
  const uint64_t into = manifest_.merge->into;
  for (const PruneStep& step : plan_prune(settled(manifest_), kept).steps) {
    // Behind it comes what may go only after it.
    if (step.kind != PruneStep::Kind::Remove || step.point == into) break;
    remove(step.point);
    removed.push_back(step);
  }
  return removed;
}

void Pruner::run(const PruneStep& step) {
  if (step.kind == PruneStep::Kind::Merge) {
    merge(step.point, step.into);
  } else {
    remove(step.point);
  }
}

void Pruner::remove(uint64_t id) {
  Manifest next = manifest_;
  const Point gone = point_in(&next, id);
  throw_away(&next, gone.file);
  throw_away(&next, gone.skipped_file);
  erase_point(&next, id);
  save(next);
  sweep();
}

void Pruner::merge(uint64_t id, uint64_t into) {
  Manifest next = manifest_;
  const Point& upper = point_in(&next, into);
  check_room(point_in(&next, id), upper);
  // It stands on the other: all files of both are looked at.
  const std::string damage = chain_damage(manifest_, upper, destination_, true);
  if (!damage.empty()) throw Failure(kDiffers, damage, "nothing was merged");
  next.merge = Merge{id, into, "", 0};
  save(next);
  finish_merge();
}

void Pruner::check_room(const Point& from, const Point& into) const {
  const uint64_t needed = size_of(path(into.file));
  const uint64_t there = free_bytes_(destination_);
  if (there >= needed) return;
  throw Failure(kFailed,
                fmt::format("merging point {} into point {} may take {}, and {} is free in {}",
                            from.id, into.id, show_size(needed), show_size(there), destination_),
                "make room there; that merge was not begun, and all points restore as before");
}

// A signal ends it early: then on_step_ has the last word.
void Pruner::commit(const Point& point) {
  const std::vector<std::string> command = {"qemu-img", "commit",        "-q", "-d", "-f",
                                            "qcow2",    path(point.file)};
  const Ran ran = run_attended(command, {{}, SignalsNoted::any});
  on_step_();
  if (ran.errors.find("No space left") != std::string::npos) {
    throw Failure(
        kFailed, fmt::format("merging {}: there is no room left in {}", point.file, destination_),
        "make room there: the next `snbf prune` goes on; what is kept restores meanwhile");
  }
  require_success(command, ran);
}

void Pruner::finish_merge() {
  Manifest next = manifest_;
  const Point from = point_in(&next, next.merge->from);
  const Point into = point_in(&next, next.merge->into);
  if (next.merge->hash.empty()) {
    on_step_();
    commit(into);
    sync_file(path(from.file));
    next.merge->hash = hash_file(path(from.file));
    next.merge->file_bytes = size_of(path(from.file));
    save(next);
  }
  on_step_();
  // It is gone if that has happened already.
  if (is_there(path(from.file)) && ::rename(path(from.file).c_str(), path(into.file).c_str()) < 0) {
    throw failure_of(-errno, "naming " + path(into.file));
  }
  sync_directory(destination_);
  save(settled(next));
  sweep();
}

}  // namespace snbf
