// SPDX-License-Identifier: GPL-2.0-only
// Reads of a snap that waited in the COW queue: put together from COW data files and the partition.
#pragma once

#include "base/units.h"
#include "block/node.h"
#include "snap/workset.h"

namespace snbf {

// Whether the old contents of any chunk of these sectors lie in a COW data file of this snap or a
// newer one. Any context; the table's lock is held.
bool is_any_chunk_copied(SnapNode& snap, const SectorRange& sectors);

struct SnapReadResult {
  int error;  // to complete the read with
  bool was_watched;
};

// Fills the read's memory; it is not completed. By the COW thread, with the table's lock held and no
// other. Chunks do not become copied meanwhile: only this thread copies.
SnapReadResult serve_snap_read(SnapNode& snap, plat_bio* bio, WorkSet& work);

}  // namespace snbf
