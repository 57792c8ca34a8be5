// How often runs have come to what they judge: a run that never gets there judges nothing.
#pragma once

#include <cstdint>
#include <cstdio>
#include <iterator>

namespace snbf::rig {

enum class Met : unsigned {
  Snap,     // started
  Copy,     // a chunk of a snap, as its bitmap says
  Parked,   // a request behind which some were parked
  Held,     // a request behind which some were held for snaps
  Fault,    // that somebody ran into
  Image,    // a read of a snap that was compared
  Restart,  // of the node, or of the driver
  Resume,
  Pair,      // requests that overlap, both not done: their order was judged
  Flush,     // that was answered
  Durable,   // a sector that a power cut had to leave
  Map,       // a snap's data-block map that was compared
  Free,      // a chunk that it told to be free
  InPlace,   // a request whose end came before its submission returned
  Refused,   // one that failed so, before it was queued
  Torn,      // one that failed, but may have done a part
  Moved,     // a write that failed and was found on the partition all the same
  LostPage,  // of a file, by a sync that failed
  Refusal,   // of a change, by a store whose journal had failed
  kCount,
};

constexpr const char* kMetNames[] = {"snaps",   "copies",   "parked",    "held",    "faults",
                                     "images",  "restarts", "resumes",   "pairs",   "flushes",
                                     "durable", "maps",     "free",      "inplace", "refused",
                                     "torn",    "moved",    "lostpages", "refusals"};
static_assert(std::size(kMetNames) == static_cast<unsigned>(Met::kCount));

struct Tally {
  std::uint64_t counts[static_cast<unsigned>(Met::kCount)] = {};

  std::uint64_t& operator[](Met met) { return counts[static_cast<unsigned>(met)]; }
  void add(const Tally& other) {
    for (unsigned i = 0; i < std::size(counts); ++i) counts[i] += other.counts[i];
  }
};

}  // namespace snbf::rig
