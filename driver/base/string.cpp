// SPDX-License-Identifier: GPL-2.0-only
#include "base/string.h"

namespace snbf {

size_t text_length_bounded(const char* text, size_t capacity) {
  size_t length = 0;
  while (length < capacity && text[length] != '\0') ++length;
  return length;
}

bool text_copy(char* to, size_t capacity, const char* from) {
  const size_t length = text_length_bounded(from, capacity);
  const bool fits = length < capacity;
  const size_t kept = fits ? length : capacity - 1;
  mem_copy(to, from, kept);
  to[kept] = '\0';
  return fits;
}

// No length is counted first: every request of a node with snaps asks this of its task's name.
bool text_contains(const char* text, const char* part) {
  for (;; ++text) {
    size_t matched = 0;
    while (part[matched] != '\0' && text[matched] == part[matched]) ++matched;
    if (part[matched] == '\0') return true;
    if (*text == '\0') return false;
  }
}

long text_to_long(const char* text, const char** end) {
  const bool negative = *text == '-';
  if (negative) ++text;
  unsigned long value = 0;
  while (*text >= '0' && *text <= '9') value = value * 10 + static_cast<unsigned long>(*text++ - '0');
  if (end != nullptr) *end = text;
  return static_cast<long>(negative ? 0UL - value : value);
}

}  // namespace snbf
