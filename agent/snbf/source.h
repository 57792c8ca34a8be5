// SPDX-License-Identifier: GPL-2.0-only
// What a backup without a snap reads: the node's device as it is.
#pragma once

#include <string>
#include <vector>

#include "driver.h"
#include "files.h"

namespace snbf {

// The node's device, and how still it stands.
class LiveSource {
 public:
  explicit LiveSource(const snbf_info& node);

  int fd() const { return fd_.get(); }
  bool unmounted() const { return exclusive_; }
  const std::vector<std::string>& mounts() const { return mounts_; }

 private:
  std::vector<std::string> mounts_;
  UniqueFd fd_;
  bool exclusive_ = false;
};

// For reading, past the page cache. Throws.
UniqueFd open_snap(const std::string& device);

}  // namespace snbf
