// SPDX-License-Identifier: GPL-2.0-only
// Where a restore writes to: a device that nobody uses, or a file.
#pragma once

#include <cstdint>
#include <string>

#include "convert.h"
#include "files.h"

namespace snbf {

struct Target {
  std::string path;  // absolute
  bool exists = false;
  bool is_device = false;
  uint64_t size_bytes = 0;  // of a device
  std::string contents;     // what is on it: "ext4, labelled data"; empty: nothing
  UniqueFd claim;           // for as long as the restore lasts

  // "ext4, labelled data, on /dev/sdc1 (8G)"
  std::string describe() const;
};

// A device is held from here on, so that nothing is mounted on it meanwhile. Throws Failure: busy,
// mounted, of another kind, in the backup itself.
Target claim_target(const std::string& path, const std::string& destination);

// Throws Failure if an image of that size, of which `data_bytes` are not zero, does not go there, or
// if something would be overwritten that nobody gave up.
void check_target(const Target& target, uint64_t size_bytes, uint64_t data_bytes, bool overwrite);

// The bytes of a file come into one of another name, which takes the target's when it is whole: an
// interrupted restore leaves what was there.
class TargetFile {
 public:
  explicit TargetFile(const Target& target);
  ~TargetFile();  // removes what has not become the target
  TargetFile(const TargetFile&) = delete;
  TargetFile& operator=(const TargetFile&) = delete;

  const std::string& path() const { return path_; }  // the target's own, if it is a device
  void keep();

 private:
  const Target& target_;
  std::string path_;
  UniqueFd lock_;
  bool kept_ = false;
};

}  // namespace snbf
