// SPDX-License-Identifier: GPL-2.0-only
// Creation of filter nodes: SNBF_ADD_FILTER_NODE.
#pragma once

#include "snbf/protocol.h"

// 0 and the record's minor, uuid and name filled in, or a negative error and nothing left behind.
// The node is created stopped. Takes lifecycle_mutex; may sleep long (it reads the bitmap files).
int snbf_ioctl_add_filter_node(snbf_filter_node_cmd& record);
