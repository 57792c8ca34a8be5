// SPDX-License-Identifier: GPL-2.0-only
// kdirtyd: the thread that raises dirty flags in bitmap files, since the request path can write no
// file.
//
// The life of a request: queued by a write that changed a clean bitmap or that has to wait for the flag, or at the end
// of a save that failed or that writes wait for; perhaps cancelled by a save that makes it needless; served by kdirtyd,
// which writes the flag under the node's bmp_mutex if it is still valid; removed only then. So when no request of a
// node is queued, kdirtyd does no file work for that node, unless the files of another lie on it: then it may hold the
// record, and raises the flags only while the node is started. A deletion that stops waiting cancels what is queued,
// and the last holder frees the record.
#pragma once

#include "block/node.h"

// 0, -EALREADY, or the error of the thread's start. Start and stop are serialised by load and
// unload.
int snbf_start_kdirtyd();
// Waits for its end; what is still queued is discarded unwritten. 0 or -ESRCH.
int snbf_stop_kdirtyd();
// 0 or -ENOMEM: the flag is then not raised, but the bitmap still counts as to be saved. May sleep.
int snbf_sched_write_dirty_flag(snbf::FilterNode& node, snbf::u32 type);
// Cancels what is queued for this bitmap. Always 0.
int snbf_kill_dirty_requests(snbf::FilterNode& node, snbf::u32 type);

// Waits until no request of the node is queued: 0, or -ETIMEDOUT after `seconds`; less than 1:
// without a limit.
int snbf_yield_to_dirty_requests(snbf::FilterNode& node, int seconds);
