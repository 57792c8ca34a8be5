// SPDX-License-Identifier: GPL-2.0-only
// Keeps the reader of ReiserFS away from bitmaps that are not up to date.
#pragma once

#include "fsread/reader.h"

namespace snbf {

// Nobody's: a ReiserFS whose journal holds transactions that are not in their places yet. It may
// use blocks that its bitmaps still call free; a line says so. Never the caller's own. May sleep.
Claim reiserfs_claim(plat_bdev* bdev);

}  // namespace snbf
