// SPDX-License-Identifier: GPL-2.0-only
// One pass over a filter node's COW queue, from its head.
//
// The COW thread serves the queue by passes: what can go, goes; what must be copied first is gathered
// and copied at the end. Every pass ends: what comes in meanwhile may be left to the next one. Its
// watchdog makes one, too, to let the held writes go after the snaps that held them were given up.
#pragma once

#include "block/node.h"
#include "snap/workset.h"

namespace snbf {

// By the COW thread. May sleep long; no lock is held.
void serve_cow_queue(FilterNode& filter, WorkSet& work);

// By the watchdog, while it is in the gate: gives up every snap that a held write waits for, and the
// snap of the stalled operation, each with the older ones, and lets go what waits for none any more.
// Copies nothing, touches no file, and passes by the request that the thread is at.
void release_cow_queue(FilterNode& filter);

}  // namespace snbf
