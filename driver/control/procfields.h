// SPDX-License-Identifier: GPL-2.0-only
// What each file of a node's /proc directory shows.
#pragma once

#include <span>

#include "block/node.h"

namespace snbf {

// The text of one /proc file, within one page.
class ProcText {
 public:
  explicit ProcText(char* page) : page_(page) { page_[0] = '\0'; }
  void number(int value);
  void number64(s64 value);
  void text(const char* value);
  int length() const { return static_cast<int>(length_); }

 private:
  char* page_;
  size_t length_ = 0;
};

struct ProcField {
  const char* name;
  // The table's lock is held for reading.
  void (*show)(ProcText& out, Node& node);
};

// In the order in which the files are created. Any kind but a filter node is read as a snap.
std::span<const ProcField> proc_fields(const Node& node);

}  // namespace snbf
