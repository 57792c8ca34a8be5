// SPDX-License-Identifier: GPL-2.0-only
#include "skipped.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include "failure.h"
#include "files.h"

namespace snbf {

Sorted sort_out(const Extents& changed, const Extents& used, const Extents* parent_skipped) {
  Sorted sorted{changed, {}, {changed.extent_cnt(), changed.extent_size(), changed.dev_size()}};
  if (parent_skipped) sorted.copied.merge(*parent_skipped);
  sorted.skipped = sorted.copied;
  sorted.skipped.subtract(used);
  sorted.copied.subtract(sorted.skipped);
  if (parent_skipped) {
    sorted.zeroed = sorted.skipped;
    sorted.zeroed.subtract(*parent_skipped);
  }
  return sorted;
}

Extents blank_extents(const Manifest& manifest) {
  if (manifest.size == 0 || manifest.extent_size == 0) return {};
  return {(manifest.size - 1) / manifest.extent_size + 1, manifest.extent_size, manifest.size};
}

std::string skipped_name(uint64_t id) { return fmt::format("{:04}.skipped", id); }

void store_skipped(const std::string& destination, const Extents& skipped, Point* point) {
  point->skipped_extents = skipped.count();
  point->skipped_bytes = skipped.covered_bytes();
  point->skipped_file.clear();
  point->skipped_hash.clear();
  if (skipped.none()) return;
  point->skipped_file = skipped_name(point->id);
  const std::string path = destination + "/" + point->skipped_file;
  replace_file(path, {skipped.bytes().begin(), skipped.bytes().end()});
  point->skipped_hash = hash_file(path);
}

Extents load_skipped(const Manifest& manifest, const Point& point, const std::string& destination) {
  Extents skipped = blank_extents(manifest);
  if (point.skipped_file.empty()) return skipped;
  std::string damage = skipped_damage(point, destination);
  std::string bytes;
  if (damage.empty() && (!read_file(destination + "/" + point.skipped_file, &bytes) ||
                         bytes.size() != skipped.bytes().size())) {
    damage = point.skipped_file + " is of another device";
  }
  if (!damage.empty()) throw Failure(kDiffers, damage, "back up with --level full");
  skipped.bytes().assign(bytes.begin(), bytes.end());
  return skipped;
}

std::string skipped_damage(const Point& point, const std::string& destination) {
  if (point.skipped_file.empty()) return "";
  const std::string path = destination + "/" + point.skipped_file;
  struct stat about;
  if (::stat(path.c_str(), &about) < 0) return point.skipped_file + " is missing";
  if (hash_file(path) != point.skipped_hash) return point.skipped_file + " is not what was written";
  return "";
}

}  // namespace snbf
