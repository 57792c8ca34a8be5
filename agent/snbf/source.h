// SPDX-License-Identifier: GPL-2.0-only
// What a backup reads: a snap made for it, or the node's device as it is.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "driver.h"
#include "files.h"
#include "snaps.h"

namespace snbf {

// What the file systems on the node hold back goes to its device.
void sync_mounts(const snbf_info& node);

// The node's device, and how still it stands.
class LiveSource {
 public:
  explicit LiveSource(const snbf_info& node);

  int fd() const { return fd_.get(); }
  bool unmounted() const { return exclusive_; }
  const std::vector<std::string>& mounts() const { return mounts_; }

  // A write is marked before it reaches the partition: one that was taken as marked must have
  // landed before its extent is read. False: it cannot be told that all have. `stop` ends the wait.
  bool drain(const std::function<bool()>& stop) const;

 private:
  const snbf_info& node_;
  std::vector<std::string> mounts_;
  UniqueFd fd_;
  bool exclusive_ = false;
};

// A snap that lives as long as the backup; one that outlives the tool is taken away by the next
// backup.
class SnapSource {
 public:
  // Made and started. Throws.
  SnapSource(const Driver& driver, const snbf_info& node, const std::string& cow_dir);
  ~SnapSource();
  SnapSource(const SnapSource&) = delete;
  SnapSource& operator=(const SnapSource&) = delete;

  int fd() const { return fd_.get(); }
  const snbf_info& node() const { return made_.node; }
  uint64_t start_ms() const { return (made_.start_us + 999) / 1000; }
  // False: what was read since may be wrong.
  bool valid() const;
  // Deleted; says so if that has to wait for older snaps.
  void drop();

 private:
  const Driver& driver_;
  MadeSnap made_;
  UniqueFd fd_;
  bool there_ = true;
};

}  // namespace snbf
