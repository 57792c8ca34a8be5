// SPDX-License-Identifier: GPL-2.0-only
// Whether the free-space trees of an XFS can be believed: what its log would still change in them.
//
// The trees follow the log at leisure. After a crash blocks that are in use by the log may be free
// by the trees, until a mount replays it. The log says so itself: it ends with the record of an
// unmount; or it was covered, as by a freeze or by a minute without work, and from its tail on
// holds nothing but the superblock, logged for that purpose. In every other case nothing is
// certain.
#pragma once

#include "fsread/xfs5_layout.h"
#include "platform/block.h"

namespace snbf {

// Null when a replay would change nothing but the superblock, else what the file system has that
// stands against it. May sleep.
const char* judge_xfs_log(plat_bdev* bdev, const XfsSuper& super);

}  // namespace snbf
