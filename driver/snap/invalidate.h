// SPDX-License-Identifier: GPL-2.0-only
// Giving up snaps whose image cannot be kept any more: the one concerned, and every older one, since
// those read its copies.
#pragma once

#include "block/node.h"

namespace snbf {

// The snap of this filter node that is started, valid and has the minor; null if there is none. The
// table's lock is held.
SnapNode* find_copying_snap(FilterNode& filter, int minor);

// By the COW thread: empties the COW data files, durably where that goes. May sleep
// long. The table's lock is held.
void invalidate_snaps(SnapNode& newest);
// By anybody else: the watchdog, while the COW thread hangs in a file, or a command. Touches no file; the
// COW thread empties them as soon as it can.
void invalidate_snaps_without_files(SnapNode& newest);
// By the COW thread: what others left to do. May sleep long. The table's lock is held.
void do_due_truncations(FilterNode& filter);
// What is left of a snap that was given up must not pass for an image after a power cut: before any
// write that waited for it goes on, the emptiness of its COW data file is on disk, if the store still
// does that much. May sleep long.
void empty_data_file(SnapNode& snap);

}  // namespace snbf
