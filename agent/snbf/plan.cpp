// SPDX-License-Identifier: GPL-2.0-only
#include "plan.h"

#include "reasons.h"

namespace snbf {

namespace {

Plan full(const char* why, std::string detail = "") {
  return {Level::Full, why, std::move(detail), nullptr};
}

// Why the bitmap that counts from `counts_from` does not lead on from `parent`.
const char* mismatch(const std::string& counts_from, const std::string& parent) {
  if (counts_from == parent) return nullptr;
  return counts_from == kPointByHand ? kWhyByHand : kWhyOtherChain;
}

}  // namespace

Plan plan_backup(const Situation& situation) {
  const Manifest* manifest = situation.manifest;
  if (!manifest || manifest->points.empty()) return full(kWhyFirst);
  if (situation.asked == Level::Full) return full(kWhyAsked);
  if (manifest->size != situation.size) return full(kWhySize);
  if (manifest->extent_size != situation.extent_size) return full(kWhyExtent);
  if (!situation.distrust.empty()) return {Level::Full, situation.distrust, "", nullptr};

  const bool differential = situation.asked == Level::Differential;
  const Point* parent = differential ? manifest->newest_full() : manifest->newest();
  const std::string& damage = differential ? situation.damage_full : situation.damage_newest;
  if (!parent) return full(kWhyChain, "the manifest has no full backup");
  if (!damage.empty()) return full(kWhyChain, damage);
  const std::string& counts_from = differential ? situation.diff_point : situation.incr_point;
  // What was merged into the full point is older: the bitmap has more than it needs.
  const uint64_t counted = differential && parent->merged_from ? parent->merged_from : parent->id;
  if (const char* why = mismatch(counts_from, point_name(*manifest, counted))) return full(why);
  return {differential ? Level::Differential : Level::Incremental, "", "", parent};
}

}  // namespace snbf
