// SPDX-License-Identifier: GPL-2.0-only
// Stop of nodes: SNBF_STOP_NODE.
#pragma once

#include "block/node.h"
#include "snbf/protocol.h"

int snbf_ioctl_stop_node(snbf_minor_cmd& record);

// 0, also of a stopped node; -EBUSY while it is open. Saves the dirty bitmaps of a filter node. The
// table's lock is held for reading. Takes node_mutex; may sleep long.
int snbf_block_stop_device(snbf::Node& node);
