// SPDX-License-Identifier: GPL-2.0-only
// How far an instant restore has come, told from what is found of it.
//
// Its end, in the order that makes a cut at any point harmless:
//   1. the target is synced, the device suspended, the mirror found whole, the target synced again
//   2. the mark is written, durably
//   3. the target's own table takes the mirror's place, and the device is resumed
//   4. the overlay's server ends, the overlay goes, and the mark behind it
// While the mark is there the overlay may be older than the target, and is not mirrored any more.
#pragma once

#include <cstdint>
#include <string>

namespace snbf {

// What `dmsetup status` says of a mirror.
struct MirrorState {
  uint64_t done = 0;
  uint64_t all = 0;
  std::string health;  // a letter for each leg, 'A' while it works
};
// Throws Failure if that is no mirror's.
MirrorState mirror_state_of(const std::string& status);

// What `dmsetup table` says. Devices are MAJOR:MINOR.
struct LiveTable {
  enum class Kind { Other, Mirror, Linear } kind = Kind::Other;
  uint64_t sectors = 0;
  std::string source;  // the mirror's first leg
  std::string target;  // its second, or what the linear one lies on
};
LiveTable live_table_of(const std::string& table);

// That the target was whole, and the overlay superfluous from then on.
struct Mark {
  std::string target;  // by a name that is the same at every boot, where there is one
  std::string image;   // the point's, absolute
};
std::string to_text(const Mark& mark);
// Throws Failure if it is none; `path` is for the message.
Mark parse_mark(const std::string& text, const std::string& path);

struct Remains {
  LiveTable::Kind device = LiveTable::Kind::Other;  // Other: there is none
  bool suspended = false;
  bool overlay = false;
  bool mark = false;
};

enum class Stage {
  None,      // nothing is there
  LeftOver,  // an overlay that outlived its mirror
  Copying,   // the mirror is in use, or was suspended by a tool that went no further
  Copied,    // the mirror is suspended, and marked: the target takes its place
  Switched,  // the device is the target alone, and the overlay is to go
  Whole,     // the same, but the device is gone too
  Over,      // the device is the target alone, and that is all
};
Stage stage_of(const Remains& remains);

}  // namespace snbf
