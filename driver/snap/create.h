// SPDX-License-Identifier: GPL-2.0-only
// SNBF_ADD_SNAP_NODE.
#pragma once

#include "snbf/protocol.h"

// 0, and the record holds the minor, the chunk size, the uuid and the name that were used; or a
// negative error. May sleep.
int snbf_ioctl_add_snap_node(snbf_snap_node_cmd& record);
