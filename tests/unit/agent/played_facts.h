// SPDX-License-Identifier: GPL-2.0-only
// A node with two snaps, as one look finds it.
#pragma once

#include "facts.h"

namespace snbf {

inline NodeFacts played_facts() {
  NodeFacts node;
  node.name = "data";
  node.device = "/dev/snbf/snbf0";
  node.partition = "/dev/sdb1";
  node.uuid = "0f";
  node.started = true;
  node.opens = 2;
  node.size = 1000 * 4096;
  node.extent_size = 4096;
  node.incr.extents = Extents(1000, 4096, node.size);
  node.diff.extents = node.incr.extents;
  for (uint64_t extent = 100; extent < 300; ++extent) node.incr.extents.set(extent);
  node.incr.unsaved = true;
  node.diff.extents.set_all();
  node.last_backup = 1000000;
  node.last_full_backup = 900000;
  node.written_bytes = 5 << 20;
  node.snaps.push_back({"monday", "lost", "lost: a copy failed", 800000, 0, 4096, 1 << 20, {}});
  node.snaps.push_back({"tuesday", "started", "started", 900000, 1, 3 << 20, 9 << 20, 7800});
  return node;
}

}  // namespace snbf
