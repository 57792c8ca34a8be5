// SPDX-License-Identifier: GPL-2.0-only
// Which points of a chain are kept: a decision without side effects.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "manifest.h"

namespace snbf {

// Of each of the last so many days, weeks (from Monday) and months that have points, in local time,
// the newest one is kept; beside the last so many points. 0: that rule keeps none.
struct Retention {
  uint64_t last = 0;
  uint64_t daily = 0;
  uint64_t weekly = 0;
  uint64_t monthly = 0;

  bool empty() const { return last == 0 && daily == 0 && weekly == 0 && monthly == 0; }
};

// Their ids. The newest point is always among them.
std::set<uint64_t> kept_points(const Manifest& manifest, const Retention& retention);

// One step towards what is to be kept.
struct PruneStep {
  enum class Kind { Remove, Merge } kind = Kind::Remove;
  uint64_t point = 0;  // which goes
  uint64_t into = 0;   // Merge: the only one that stands on it
};
struct PrunePlan {
  std::vector<PruneStep> steps;
  std::vector<uint64_t> needed;  // not kept, but several points stand on them
};
PrunePlan plan_prune(const Manifest& manifest, const std::set<uint64_t>& kept);

}  // namespace snbf
