// SPDX-License-Identifier: GPL-2.0-only
// The snap's side of starting and stopping a node.
#pragma once

#include "base/result.h"
#include "block/node.h"

namespace snbf {

// Answered by start_snap when what it found no longer holds: the filter was stopped, or snaps that are
// newer in the list have started meanwhile, and this one must go behind them first.
constexpr int kStartAgain = 1;

// From stopped to an image of this instant. 0, kStartAgain or a negative error, and it is as before.
// The table's lock is held for reading, and the snap's node_mutex. May sleep long.
int start_snap(SnapNode& snap);
// Behind the start, with no mutex held: builds the data-block map through the snap's own device. A
// failure leaves the map unknown.
void read_block_map(SnapNode& snap);
// Whether a snap that is newer in the list is started. The table's lock is held.
bool is_overtaken(const SnapNode& snap);

// Starts the filter, and its COW thread, if they are not. Both at once: a stop in between, and a start of the snap that
// fails behind it, would leave the thread to nobody. Whether the thread runs (that it could not be started is logged), or
// the filter's negative error. May sleep.
Result<bool> start_below(FilterNode& filter);
// Closes the COW files and frees the maps. No request and no COW thread uses them any more.
void drop_snap_resources(SnapNode& snap);

}  // namespace snbf
