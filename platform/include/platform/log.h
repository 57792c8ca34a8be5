/* SPDX-License-Identifier: GPL-2.0-only */
/* The kernel log and text formatting. Any context. */
#ifndef SNBF_PLATFORM_LOG_H
#define SNBF_PLATFORM_LOG_H

#include <stdarg.h>

#include "platform/types.h"

PLAT_BEGIN_DECLS

/* Prints one line. A leading "<3>" or "<6>" is its level (error, information) and is not printed as text. */
void snbf_plat_print(const char* line);
/* As the C library's vsnprintf, with the kernel's conversions; bounded by `bytes`, always terminated. */
int snbf_plat_vsnprintf(char* to, plat_size bytes, const char* format, va_list arguments);
int snbf_plat_snprintf(char* to, plat_size bytes, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
/* Between the two calls the caller and others may write the same memory at once, and nobody minds what comes of it: a
 * kernel that looks for data races does not report those. They nest. */
void snbf_plat_races_begin(void);
void snbf_plat_races_end(void);
/* Stops the kernel: a programming error. */
__attribute__((noreturn)) void snbf_plat_bug(const char* file, int line, const char* what);
/* The release that this module was built for, and when. */
const char* snbf_plat_kernel_release(void);
const char* snbf_plat_build_date(void);
const char* snbf_plat_build_time(void);

PLAT_END_DECLS
#endif
