// SPDX-License-Identifier: GPL-2.0-only
// SNBF_RESUME_SNAP.
#pragma once

#include "snbf/protocol.h"

// 0 or a negative error; three refusals leave the table's lock held for reading. May sleep.
int snbf_ioctl_resume_snap(snbf_resume_cmd& record);
