// SPDX-License-Identifier: GPL-2.0-only
// A file system held still, for a limited time whatever happens to us.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "files.h"

namespace snbf {

// A process of its own, the keeper, thaws when it is told to, when we are gone (by whatever signal), or when
// the time is up. If the keeper itself is gone, or could not thaw, we do.
class Freeze {
 public:
  Freeze(const std::string& mount_point, std::chrono::milliseconds limit);
  ~Freeze();
  Freeze(const Freeze&) = delete;
  Freeze& operator=(const Freeze&) = delete;

  // True: the file system was frozen until now. Further calls answer the same.
  bool thaw();
  uint64_t lasted_ms() const;

 private:
  std::string mount_point_;
  UniqueFd mount_;
  UniqueFd tell_;
  pid_t keeper_ = -1;
  bool held_ = true;
  std::chrono::steady_clock::time_point began_;
  std::chrono::steady_clock::time_point ended_;
};

}  // namespace snbf
