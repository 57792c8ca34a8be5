/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * SNBF_PLAT_POINT(): a place where another thread may run. Each platform supplies platform_inline.h:
 * nothing on a real kernel, where it may happen anywhere; a call of the scheduler in the simulated one.
 */
#ifndef SNBF_PLATFORM_POINT_H
#define SNBF_PLATFORM_POINT_H

#include <platform_inline.h>

#endif
