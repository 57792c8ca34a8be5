// SPDX-License-Identifier: GPL-2.0-only
// Whether a write must wait for its chunks to be copied: the verdict, apart from acting on it.
#pragma once

#include "base/types.h"

namespace snbf {

// Of the chunks that a write touches, as one snap sees them.
struct ChunkCount {
  u64 all;
  u64 in_use;  // by the file system, as the snap's data-block map says
  u64 copied;
};

enum class Verdict {
  Pass,          // no snap needs the old contents any more
  Hold,          // until they have been copied
  AskOlderSnap,  // this snap does not mind
};

// What one started snap says to a write; the newest is asked first.
constexpr Verdict judge_write(bool snap_valid, const ChunkCount& chunks) {
  if (!snap_valid)
    return Verdict::Pass;  // a broken image needs no more copies, and all older ones are broken
                           // with it
  if (chunks.copied == chunks.all) return Verdict::Pass;  // the older snaps read these copies
  return chunks.in_use > 0 ? Verdict::Hold : Verdict::AskOlderSnap;
}

}  // namespace snbf
