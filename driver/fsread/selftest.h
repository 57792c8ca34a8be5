// SPDX-License-Identifier: GPL-2.0-only
// A diagnosis of the readers and of the map on a real device.
#pragma once

#include "platform/block.h"

// Reads the block map of the file system on the device in several ways, which must all agree: whole
// and in portions, block by block and in chunks, through the reader and through a data-block map.
// Portions also go into files "/tmp/bmp.%d.%d" (chunk size, chunks of a portion); one that cannot
// be written is passed over. 0, or the error of the first disagreement, with a line. Sleeps, and
// takes a bit for each block.
int snbf_blkbmp_test(plat_bdev* bdev);
