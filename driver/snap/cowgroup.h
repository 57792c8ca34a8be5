// SPDX-License-Identifier: GPL-2.0-only
// Copying what held writes are about to overwrite into the COW data file of one snap.
//
// The order that a power cut must find: the data in its file, synced; then the bits in theirs, synced;
// then the writes. While the bits are set and not synced yet, their chunks are published as unsafe.
#pragma once

#include "block/node.h"
#include "snap/workset.h"

namespace snbf {

// How many chunks one group may hold.
constexpr u32 group_capacity(u32 chunk_shift) {
  return chunk_shift >= kGroupShift ? 1 : 1u << (kGroupShift - chunk_shift);
}

// Copies the chunks of work.chunks for the snap; whatever fails invalidates it. By the COW thread,
// with the table's lock held and no other. May sleep long.
void copy_group(FilterNode& filter, SnapNode& snap, WorkSet& work);

}  // namespace snbf
