// SPDX-License-Identifier: GPL-2.0-only
// What a backup destination holds: points, each a qcow2 image that stands on its parent's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace snbf {

enum class Level { Full, Incremental, Differential };
const char* level_name(Level level);  // "full", "incr", "diff"

struct Point {
  uint64_t id = 0;  // rising; never used twice
  std::string file;
  Level level = Level::Full;
  std::optional<uint64_t> parent;  // none for a full one
  std::string why;                 // why it is full: a code of reasons.h
  std::string detail;              // what exactly is broken, if anything
  std::string source;              // "snap", "unmounted", "frozen", "quiet", or "moving": not exact
  int64_t created = 0;             // seconds since 1970
  double seconds = 0;
  uint64_t frozen_ms = 0;
  uint64_t extents = 0;
  uint64_t bytes = 0;        // of those extents
  uint64_t data_bytes = 0;   // of what was not zero in them, and was written
  uint64_t moved_bytes = 0;  // written while the copy ran, and copied again
  uint64_t file_bytes = 0;
  std::string hash;  // XXH3-128 of the file
  uint64_t merged_from = 0;  // the oldest point that was merged into it; 0: none
  // Free then, and left out: see skipped.h. No file: nothing was.
  uint64_t skipped_extents = 0;
  uint64_t skipped_bytes = 0;
  std::string skipped_file;
  std::string skipped_hash;   // XXH3-128
  std::string whole_because;  // why free extents were not left out, a sentence; empty: they were

  bool exact() const { return source != "moving"; }
};

// Of a target that cannot be named by its files: how an extent of it begins.
struct Sample {
  uint64_t extent = 0;
  std::string hash;
};

// A merge under way: see prune.h.
struct Merge {
  uint64_t from = 0;
  uint64_t into = 0;
  std::string hash;  // of the file that it makes; empty: it is not made yet
  uint64_t file_bytes = 0;
};

struct Manifest {
  std::string chain;  // names this destination in the nodes' state records
  std::string node;
  std::string node_uuid;
  std::string partition;
  uint64_t size = 0;
  uint64_t extent_size = 0;
  std::vector<Point> points;
  std::optional<Merge> merge;
  std::vector<std::string> garbage;  // files that no point needs; they are about to go
  // Of a disk behind a server (store_nbd.cpp) alone:
  std::string target;
  std::string unfinished;  // the level of a backup onto it that has begun; empty: it is complete
  std::vector<Sample> samples;

  const Point* find(uint64_t id) const;
  const Point* newest() const { return points.empty() ? nullptr : &points.back(); }
  const Point* newest_full() const;
  // From the full one to `point`; empty if a parent is not there.
  std::vector<const Point*> lineage(const Point& point) const;
  uint64_t next_id() const { return points.empty() ? 1 : points.back().id + 1; }
};

std::string manifest_path(const std::string& destination);
std::string to_json_text(const Manifest& manifest);
// Throws Failure when the text is no manifest of ours.
Manifest manifest_from_json(const std::string& text, const std::string& path);
std::optional<Manifest> read_manifest(const std::string& destination);

// As the state record names a point: "CHAIN:ID".
std::string point_name(const Manifest& manifest, uint64_t id);

// What is wrong with the point's own file: a sentence, or empty. Looks at its size, and with
// `contents` at every byte.
std::string file_damage(const Manifest& manifest, const Point& point,
                        const std::string& destination, bool contents);
// The same of it and of all files below it.
std::string chain_damage(const Manifest& manifest, const Point& point,
                         const std::string& destination, bool contents);

}  // namespace snbf
