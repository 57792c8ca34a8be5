// SPDX-License-Identifier: GPL-2.0-only
/* The kernel log and text formatting. */
#include "platform/log.h"

#include <generated/utsrelease.h>
#include <linux/bug.h>
#include <linux/kcsan-checks.h>
#include <linux/kernel.h>
#include <linux/printk.h>
#include <linux/string.h>

void snbf_plat_print(const char* line) {
  if (strncmp(line, "<3>", 3) == 0)
    printk(KERN_ERR "%s", line + 3);
  else if (strncmp(line, "<6>", 3) == 0)
    printk(KERN_INFO "%s", line + 3);
  else
    printk(KERN_DEFAULT "%s", line);
}

int snbf_plat_vsnprintf(char* to, plat_size bytes, const char* format, va_list arguments) {
  return vsnprintf(to, bytes, format, arguments);
}

int snbf_plat_snprintf(char* to, plat_size bytes, const char* format, ...) {
  va_list arguments;
  int length;

  va_start(arguments, format);
  length = vsnprintf(to, bytes, format, arguments);
  va_end(arguments);
  return length;
}

void snbf_plat_races_begin(void) { kcsan_disable_current(); }

void snbf_plat_races_end(void) { kcsan_enable_current(); }

void snbf_plat_bug(const char* file, int line, const char* what) {
  pr_emerg("snbf: %s:%d: %s\n", file, line, what);
  BUG();
}

const char* snbf_plat_kernel_release(void) { return UTS_RELEASE; }

const char* snbf_plat_build_date(void) { return __DATE__; }

const char* snbf_plat_build_time(void) { return __TIME__; }
