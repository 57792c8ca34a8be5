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

Pruner::Pruner(const std::string& destination, Manifest* manifest, std::function<void()> on_step)
    : destination_(destination), manifest_(*manifest), on_step_(std::move(on_step)) {}

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
  for (uint64_t each : {id, into}) {
    const std::string damage = chain_damage(manifest_, point_in(&next, each), destination_, true);
    if (!damage.empty()) throw Failure(kDiffers, damage, "nothing was merged");
  }
  next.merge = Merge{id, into, "", 0};
  save(next);
  finish_merge();
}

// A signal ends it early: then on_step_ has the last word.
void Pruner::commit(const Point& point) {
  const std::vector<std::string> command = {"qemu-img", "commit",        "-q", "-d", "-f",
                                            "qcow2",    path(point.file)};
  const Ran ran = run_attended(command, {{}, SignalsNoted::any});
  on_step_();
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
  Point& merged = point_in(&next, into.id);
  merged.parent = from.parent;
  merged.level = from.level;
  merged.why = from.why;
  merged.detail = from.detail;
  merged.merged_from = from.merged_from ? from.merged_from : from.id;
  merged.hash = next.merge->hash;
  merged.file_bytes = next.merge->file_bytes;
  throw_away(&next, from.skipped_file);
  erase_point(&next, from.id);
  next.merge.reset();
  save(next);
  sweep();
}

}  // namespace snbf
