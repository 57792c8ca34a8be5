/* SPDX-License-Identifier: GPL-2.0-only */
/* The contract asks for the standard's name; the kernel has its own. */
#include <linux/stdarg.h>
