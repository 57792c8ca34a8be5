// SPDX-License-Identifier: GPL-2.0-only
// The instant of a snap: nothing is under way to the partition, and nothing begins.
#pragma once

#include "block/node.h"

namespace snbf {

// Brings a filter node to that instant and holds it there. The file system that is mounted on the
// node is frozen first; from then on there is a limit.
class QuietPoint {
 public:
  explicit QuietPoint(FilterNode& filter) : filter_(filter) {}
  // Lets requests in, then thaws.
  ~QuietPoint();
  QuietPoint(const QuietPoint&) = delete;
  QuietPoint& operator=(const QuietPoint&) = delete;

  // 0, and the filter's node_mutex and its io_rwlock, for writing, are held; or -EAGAIN. May sleep
  // long.
  int reach();

 private:
  bool drain() const;
  bool has_parked_writes() const;
  bool has_sent_writes() const;
  void wait_for_writes(u64 until_ms) const;
  bool try_to_hold();
  void freeze();
  bool is_late() const;
  // The limit, or what is left until the deadline if that is less.
  u32 until_deadline(u32 limit_ms) const;

  FilterNode& filter_;
  u64 deadline_ms_ = 0;
  u32 rest_ms_ = 0;  // how long newcomers are kept out next
  plat_bdev* frozen_ = nullptr;
  bool is_open_ = false;  // somebody has the node's device open
  bool is_held_ = false;
};

}  // namespace snbf
