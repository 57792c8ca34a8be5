/* SPDX-License-Identifier: GPL-2.0-only */
#ifndef SNBF_PLATFORM_INLINE_H
#define SNBF_PLATFORM_INLINE_H

#define SNBF_PLAT_POINT() ((void)0)

#endif
