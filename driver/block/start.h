// SPDX-License-Identifier: GPL-2.0-only
// Start of nodes: SNBF_START_NODE.
#pragma once

#include "block/node.h"
#include "snbf/protocol.h"

int snbf_ioctl_start_node(snbf_minor_cmd& record);

// 0, or -EALREADY of a started node. The table's lock is held for reading. Takes node_mutex.
int snbf_block_start_device(snbf::Node& node);
