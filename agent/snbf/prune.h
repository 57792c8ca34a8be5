// SPDX-License-Identifier: GPL-2.0-only
// Points are taken out of a chain, and those that stay restore as before.
//
// A point that nothing stands on is removed. One that another stands on is merged into that one:
//   1. the manifest says that the point is being merged: it is no point any more
//   2. the other's clusters are committed into the point's file. Whoever reads the other, through
//      that file, finds the same bytes at every moment: its own clusters lie on top
//   3. the manifest has the hash of the file that this has made
//   4. it takes the place of the other's file
//   5. the manifest has one point less
// Before 1 there must be room for as much as the other's file has: all its clusters may be new ones
// below. Cut off anywhere, the next prune goes on from there, and what is kept restores meanwhile. If
// it was cut off for want of room, what can be removed without it goes first. Between
// 4 and 5 the file below is gone and its successor is of step 3's hash: see file_damage().
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "manifest.h"
#include "retention.h"

namespace snbf {

// As it is once the merge under way is done; the same if there is none.
Manifest settled(Manifest manifest);

class Pruner {
 public:
  using FreeBytes = std::function<uint64_t(const std::string& directory)>;

  // `on_step` is called before each of the steps above, and may end the prune there by throwing; a
  // signal that is noted (signals.h) cuts the second one short. The caller holds the destination's
  // locks.
  Pruner(
      const std::string& destination, Manifest* manifest, std::function<void()> on_step = [] {},
      FreeBytes free_bytes = nullptr);

  // While a merge that was cut off waits: removes what goes without it, and answers what that was.
  // `kept` is of the settled manifest.
  std::vector<PruneStep> remove_meanwhile(const std::set<uint64_t>& kept);
  // What a prune that was cut off has left. True: there was something.
  bool mend();
  void run(const PruneStep& step);

 private:
  void remove(uint64_t id);
  void merge(uint64_t id, uint64_t into);
  void check_room(const Point& from, const Point& into) const;
  void finish_merge();
  void commit(const Point& point);
  void sweep();
  void save(const Manifest& next);

  std::string path(const std::string& file) const { return destination_ + "/" + file; }

  std::string destination_;
  Manifest& manifest_;
  std::function<void()> on_step_;
  FreeBytes free_bytes_;
};

}  // namespace snbf
