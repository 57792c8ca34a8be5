// SPDX-License-Identifier: GPL-2.0-only
// One backup: from a plan to a point in the manifest, such that no change is ever lost.
//
// Order, from a snap: journal "begins"; take the bitmap (B1); journal what was taken; start the
// snap; read the bitmap (B2); copy B1 and B2 from the snap; the image is complete and synced; the
// manifest names it; the state record counts from it; drop the journal; delete the snap. Clearing
// the bitmap before the start and reading it again after it, in that order, misses no write.
// What the snap's file system does not use is left out; see skipped.h.
// Without a snap, from the node's device: the same, but copy what was taken, then take and copy
// again what was written meanwhile, until nothing was (or, with a freeze, under it).
// Whatever fails before the manifest names the point, all that was taken is merged back.
#pragma once

#include <chrono>
#include <string>

#include "capture_journal.h"
#include "driver.h"
#include "manifest.h"
#include "plan.h"

namespace snbf {

struct CaptureOptions {
  std::string cow_dir;         // for the snap's files; empty: without a snap
  bool snap_required = false;  // else a snap that cannot be made is done without
  bool whole = false;          // what the file system does not use is copied too
  bool freeze = false;
  std::chrono::milliseconds freeze_limit{10000};
};

// Of the node, from now on: what its bitmaps count from.
void record_point(const snbf_info& node, const std::string& point, bool full);

// Takes away the snaps of backups that were cut off, and gives back what such a one had
// taken. Answers a sentence about it, or nothing. Throws when the journal is another node's.
std::string recover_capture(const Driver& driver, const snbf_info& node);

// Adds the point to the manifest, in memory and at the destination. The caller holds the
// destination's and the node's locks.
Point capture(const Driver& driver, const snbf_info& node, const Plan& plan,
              const CaptureOptions& options, const std::string& destination, Manifest* manifest);

}  // namespace snbf
