// SPDX-License-Identifier: GPL-2.0-only
// The two read-only queries: SNBF_GET_DEVICE_LIST and SNBF_GET_INFO.
#pragma once

#include "block/node.h"
#include "snbf/protocol.h"

// 0, or -EINVAL for a kind that is none.
int snbf_ioctl_get_device_list(snbf_device_list& record);
// 0, or -EINVAL for a snap without a filter node. The table's lock is held for reading. Fields of
// the other kind are left as they are.
int snbf_ioctl_get_info(snbf::Node& node, snbf_info& record);
