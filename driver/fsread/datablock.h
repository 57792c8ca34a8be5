// SPDX-License-Identifier: GPL-2.0-only
// The commands about data-block maps. Both may sleep.
#pragma once

#include "block/node.h"
#include "snbf/protocol.h"

// The map of a started snap, reduced to the caller's extents; every bit set while there is none.
// The table's lock is held for reading.
int snbf_ioctl_get_datablock_bmp(snbf::Node& node, snbf_datablock_cmd& record);
// Runs the self-test on an unmounted block device.
int snbf_ioctl_test_datablock(snbf_datablock_test& record);
