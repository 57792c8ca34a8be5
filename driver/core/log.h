// SPDX-License-Identifier: GPL-2.0-only
// The driver's log lines. Any context.
//
// Every message is a whole literal whose first conversion is "%s(): ", filled with the name of
// the routine that speaks.
#pragma once

#include "platform/entry.h"

namespace snbf {

constexpr int kLogError = 255;  // printed always; 1 to 4 while snbf_debug is at least that

inline bool log_enabled(int level) { return level < 1 || level > 4 || snbf_debug >= level; }

}  // namespace snbf

extern "C" {

// One buffer for all callers and no lock, by design: lines of concurrent callers may mix.
extern char* snbf_debug_buffer;
extern int snbf_debug_buffer_size;

void snbf_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// 0 or -ENOMEM.
int snbf_debug_init();
int snbf_debug_destroy();
}
