// SPDX-License-Identifier: GPL-2.0-only
// Where a request to a node goes. snbf_make_request, the request function of every node, is
// declared in platform/entry.h.
#pragma once

#include "base/units.h"
#include "block/node.h"
#include "core/memory.h"

namespace snbf {

// Whether a write to these sectors must be held for a snap of the filter node. io_rwlock is held
// for reading.
bool must_hold_write(FilterNode& filter, const SectorRange& sectors);

// Sends a write on that was parked and is in no list any more, as its own submitter would have; or fails
// it, if the node has been stopped meanwhile. No lock is held; may sleep.
void continue_parked_write(FilterNode& filter, plat_bio* bio);

// For what a request needs on its way. A COW thread's own must not wait for memory that only that thread can give
// back. A look at the task's name: only where something is allocated, which the plain way through does not.
AllocMode request_alloc_mode();

// The minor that held requests are tagged with: of the newest started snap; 0 if there is none.
int newest_started_minor(const FilterNode& filter);

}  // namespace snbf
