// SPDX-License-Identifier: GPL-2.0-only
// One backup: from a plan to a point at a destination, such that no change is ever lost.
//
// The library's capture (libsnbf.h) keeps the order; here lie the copy and the destination. From a
// snap: what is to be copied is taken, the snap is read, the destination is complete and durable and
// names the point, and only then does the bitmap count from it.
// What the snap's file system does not use is left out; see skipped.h.
// Without a snap, from the node's device: copy what was taken, then take and copy again what was
// written meanwhile, until nothing was (or, with a freeze, under it).
// Whatever fails before the destination names the point, all that was taken is merged back.
#pragma once

#include <chrono>
#include <string>

#include "driver.h"
#include "hooks.h"
#include "manifest.h"
#include "node_capture.h"
#include "plan.h"
#include "store.h"

namespace snbf {

struct CaptureOptions {
  std::string cow_dir;         // for the snap's files; empty: without a snap
  bool snap_required = false;  // else a snap that cannot be made is done without
  bool whole = false;          // what the file system does not use is copied too
  bool freeze = false;
  std::chrono::milliseconds freeze_limit{10000};
  HookCommands hooks;  // around the start of the snap; without one, around the copy
};

struct Captured {
  Point point;
  bool hook_failed = false;  // the one after the thaw; the reader knows already
};

// The caller has recovered what was left of an earlier capture.
Captured capture(const Driver& driver, const snbf_info& node, const Plan& plan,
                 const CaptureOptions& options, NodeCapture* taken, Store* store);

}  // namespace snbf
