// SPDX-License-Identifier: GPL-2.0-only
// Memory and text routines that the compiler may turn into the kernel's own.
#pragma once

#include "base/types.h"

namespace snbf {

inline void* mem_copy(void* to, const void* from, size_t bytes) { return __builtin_memcpy(to, from, bytes); }
inline void* mem_set(void* to, int byte, size_t bytes) { return __builtin_memset(to, byte, bytes); }
inline int mem_compare(const void* a, const void* b, size_t bytes) { return __builtin_memcmp(a, b, bytes); }
inline size_t text_length(const char* text) { return __builtin_strlen(text); }
inline bool text_equal(const char* a, const char* b) { return __builtin_strcmp(a, b) == 0; }

// Length of a text that may lack its terminator: at most `capacity`.
size_t text_length_bounded(const char* text, size_t capacity);
// Copies at most capacity - 1 characters and always terminates; answers whether all of it fitted.
bool text_copy(char* to, size_t capacity, const char* from);
bool text_contains(const char* text, const char* part);
// As the kernel's simple_strtol with base 10: an optional "-", digits; `end` is the first character not used.
long text_to_long(const char* text, const char** end);

}  // namespace snbf
