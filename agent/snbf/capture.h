// SPDX-License-Identifier: GPL-2.0-only
// One backup: from a plan to a point in the manifest, such that no change is ever lost.
//
// Order: journal "begins"; take the bitmap; journal what was taken; copy; take and copy again what
// was written meanwhile, until nothing was (or, with a freeze, under it); the image is complete and
// synced; the manifest names it; the state record counts from it; drop the journal. Whatever fails
// before the manifest names the point, all that was taken is merged back.
#pragma once

#include <chrono>
#include <string>

#include "capture_journal.h"
#include "driver.h"
#include "manifest.h"
#include "plan.h"

namespace snbf {

struct CaptureOptions {
  bool freeze = false;
  std::chrono::milliseconds freeze_limit{10000};
};

// Gives back what a backup that was cut off had taken. Answers a sentence about it, or nothing.
std::string recover_capture(const Driver& driver, const snbf_info& node);

// Adds the point to the manifest, in memory and at the destination. The caller holds the
// destination's and the node's locks.
Point capture(const Driver& driver, const snbf_info& node, const Plan& plan,
              const CaptureOptions& options, const std::string& destination, Manifest* manifest);

}  // namespace snbf
