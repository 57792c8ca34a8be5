// SPDX-License-Identifier: GPL-2.0-only
// Which level the next backup has, and why: a decision without side effects.
#pragma once

#include <optional>
#include <string>

#include "libsnbf.h"
#include "manifest.h"

namespace snbf {

inline constexpr const char* kPointByHand = "by-hand";  // a bitmap that somebody changed

struct Situation {
  std::optional<Level> asked;          // none: whatever copies least
  const Manifest* manifest = nullptr;  // null: nothing at the destination yet
  std::string damage_newest;           // of the chain below the newest point; empty: none
  std::string damage_full;             // of the newest full point
  std::string distrust;                // from the state record
  std::string incr_point;
  std::string diff_point;
  uint64_t size = 0;
  uint64_t extent_size = 0;
};

struct Plan {
  Level level = Level::Full;
  std::string why;  // a code of reasons.h, when it is full
  std::string detail;
  const Point* parent = nullptr;
};

Plan plan_backup(const Situation& situation);

}  // namespace snbf
