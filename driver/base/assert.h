// SPDX-License-Identifier: GPL-2.0-only
// Stops the kernel when something holds that only a mistake in this driver can bring about. What
// comes from a disk, the agent or the kernel is never asserted: it is judged and answered.
#pragma once

#include "platform/log.h"

#define SNBF_ASSERT(condition) \
  (__builtin_expect(!!(condition), 1) ? (void)0 : snbf_plat_bug(__FILE__, __LINE__, #condition))
