// SPDX-License-Identifier: GPL-2.0-only
#include "snap/invalidate.h"

#include "core/log.h"

namespace snbf {

namespace {

using Snaps = List<SnapNode, BySnapOrder>;

// Oldest first: whoever finds a snap invalid, and reads or writes past it, finds those that relied on it
// invalid, too.
void give_up(SnapNode& newest) {
  SnapNode* oldest = &newest;
  while (SnapNode* older = Snaps::prev(oldest)) oldest = older;
  for (SnapNode* snap = oldest; snap != nullptr; snap = Snaps::next(snap)) {
    if (snap->started.load() != 0) {
      snap->snap_valid.store(0);
      snap->truncation_due.store(1);
    }
    if (snap == &newest) break;
  }
  for (SnapNode* snap = &newest; snap != nullptr; snap = Snaps::prev(snap)) {
    if (snap->started.load() == 0) continue;
    snbf_log(1, "%s(): Invalidating snap device snbf(%d, %d)", "snbf_invalidate_snap",
             snbf_blk_major, static_cast<int>(snap->minor));
  }
}

// By the COW thread, within a pass. A stop waits for the pass and does what it finds not done. So the
// state is looked at first: a duty that is taken from a stopped snap and then left, nobody would do.
void truncate_if_due(SnapNode& snap) {
  if (snap.started.load() == 0 || snap.truncation_due.exchange(0) == 0) return;
  StallGate& gate = snap.filter_node->cowthread.gate;
  gate.begin_file_operation(snap.minor);
  empty_data_file(snap);
  gate.end_file_operation();
}

}  // namespace

void empty_data_file(SnapNode& snap) {
  snbf_ftruncate(snap.cow_data_fname);
  if (snap.cow_data_file != nullptr) snbf_fsync(snap.cow_data_file);
}

SnapNode* find_copying_snap(FilterNode& filter, int minor) {
  if (minor < 0) return nullptr;
  Node* node = find_node(static_cast<u32>(minor));
  if (node == nullptr || node->dev_type != kSnapNode) return nullptr;
  SnapNode& snap = as_snap(*node);
  if (snap.filter_node != &filter) return nullptr;
  return snap.started.load() != 0 && snap.snap_valid.load() != 0 ? &snap : nullptr;
}

void invalidate_snaps(SnapNode& newest) {
  Atomic<int>& giving_up = newest.filter_node->cowthread.giving_up;
  giving_up.store(1);
  // All of them first: the files may take their time.
  give_up(newest);
  for (SnapNode* snap = &newest; snap != nullptr; snap = Snaps::prev(snap)) truncate_if_due(*snap);
  giving_up.store(0);
}

void invalidate_snaps_without_files(SnapNode& newest) {
  give_up(newest);
  newest.filter_node->cowthread.truncations_due.store(1);
  newest.filter_node->cowqueue.wait.wake();
}

void do_due_truncations(FilterNode& filter) {
  if (filter.cowthread.truncations_due.load() == 0) return;
  filter.cowthread.truncations_due.store(0);
  for (SnapNode* snap = filter.snaps.first(); snap != nullptr; snap = Snaps::next(snap)) {
    truncate_if_due(*snap);
  }
}

}  // namespace snbf
