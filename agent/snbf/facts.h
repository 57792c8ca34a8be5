// SPDX-License-Identifier: GPL-2.0-only
// One look at a node: what metrics, the live view and the drawings are made of.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "driver.h"
#include "extents.h"
#include "libsnbf_capture.h"

namespace snbf {

struct BitmapFacts {
  Extents extents;
  bool unsaved = false;  // memory holds what the bitmap's file does not
};

struct SnapFacts {
  std::string name;
  std::string state;    // as Snap::state() has it
  std::string about;    // the same as people read it
  int64_t created = 0;  // seconds since 1970; 0: unknown
  uint32_t opens = 0;
  uint64_t cow_bytes = 0;
  uint64_t cow_free_bytes = 0;  // where its COW files lie
  std::optional<uint64_t> full_in_s;
};

struct NodeFacts {
  std::string name;
  std::string device;
  std::string partition;
  std::string uuid;
  bool started = false;
  uint32_t opens = 0;
  uint64_t size = 0;
  uint64_t extent_size = 0;
  BitmapFacts incr;
  BitmapFacts diff;
  std::string next_full;         // why the next backup is full, a code; empty: it need not be
  bool unfinished = false;       // a backup is under way, or was cut off
  int64_t last_backup = 0;       // seconds since 1970; 0: none is known
  int64_t last_full_backup = 0;  // likewise
  std::optional<uint64_t> written_bytes;  // since the node has its device
  std::vector<SnapFacts> snaps;           // oldest first
};

// Why the next backup must be full, a code; empty: it need not.
std::string why_next_full(const libsnbf_state& state);

// Of zeros where nothing is known.
libsnbf_last_capture last_capture_of(const Driver& driver, const snbf_info& node);

// Throws; -ENODEV among others if the node goes meanwhile.
NodeFacts look_at(const Driver& driver, const snbf_info& node);

// All of them, but those that go meanwhile.
std::vector<NodeFacts> look_at_all(const Driver& driver);

// From the statistics of a block device, as the kernel shows them in its "stat" file.
std::optional<uint64_t> written_bytes_of(const std::string& statistics);

}  // namespace snbf
