// SPDX-License-Identifier: GPL-2.0-only
#include "start.h"

#include <fmt/format.h>

#include "failure.h"
#include "output.h"
#include "snaps.h"

namespace snbf {

namespace {

// A node that cannot have its snaps back is started all the same: what is mounted on it matters
// more.
int resume_snaps(const Driver& driver, const snbf_info& node) {
  int status = kDone;
  for (const Snap& snap : snaps_of(driver, node)) {
    // That of a backup that was cut off is nobody's loss.
    if (snap.state() == "resumable" || snap.record.temporary) continue;
    warn(fmt::format("the snap {} is not resumed: {}", snap.name(), describe_state(snap)));
    status = kWarned;
  }
  uint32_t resumed = 0;
  const int rc = libsnbf_snap_resume(driver.get(), node.minor, &resumed);
  if (rc != 0) {
    warn(failure_of(rc, fmt::format("resuming the snaps of {}", node.name)).what());
    status = kWarned;
  }
  if (resumed > 0) note(fmt::format("{} snaps are resumed", resumed));
  return status;
}

}  // namespace

int start_node(const Driver& driver, const snbf_info& node, bool resume) {
  const int status = resume && !node.started ? resume_snaps(driver, node) : kDone;
  // The first snap that came back has started the node.
  if (node.started || !driver.info(node.minor).started) {
    must(libsnbf_start(driver.get(), node.minor), fmt::format("starting {}", node.name));
  }
  note(fmt::format("{} is started: {}", node.name, node_path(node)));
  return status;
}

}  // namespace snbf
