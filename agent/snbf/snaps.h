// SPDX-License-Identifier: GPL-2.0-only
// The snaps of a node, as the driver and the library's records have them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "driver.h"
#include "failure.h"
#include "output.h"

namespace snbf {

struct Snap {
  snbf_info filter;               // the node it hangs on
  std::optional<snbf_info> node;  // while the driver has it
  libsnbf_snap_record record{};   // blank if it was made without the library
  std::string why;                // it cannot be resumed, a code of libsnbf.h; empty: it can

  std::string name() const { return node ? node->name : record.name; }
  // "started"; "going": it waits for older ones to go, and cannot be read; "lost"; "resumable";
  // "dead".
  std::string state() const;
  bool started() const { return node && node->started; }
  bool readable() const;
  std::string data_file() const { return node ? node->cow_data_fname : record.cow_data_fname; }
  // What its COW data file takes up on its disk.
  uint64_t cow_bytes() const;
};

// Oldest first; what is left over of snaps that are no nodes is among them.
std::vector<Snap> snaps_of(const Driver& driver, const snbf_info& filter);
// By name, minor, "snbf<minor>" or device file; of any node. Throws.
Snap find_snap(const Driver& driver, const std::string& text);

// The device file; one that is missing is told by its node's number.
std::string snap_path(const snbf_info& snap);

// As every verb prints a snap in JSON.
Json snap_json(const Snap& snap);

// How a state reads: "can be resumed", "lost: ...".
std::string describe_state(const Snap& snap);

// Until the COW files' disk is full, at the pace since the snap was made. Nothing: nobody knows
// yet, or it cannot come to that.
std::optional<uint64_t> seconds_until_full(uint64_t free_bytes, uint64_t copied_bytes,
                                           uint64_t age_seconds, uint64_t dev_size);
std::optional<uint64_t> seconds_until_full(const Snap& snap);

struct CowPlace {
  std::string dir;
  uint64_t free_bytes = 0;
};
// The first of the directories that may hold COW files and has room for a tenth of the partition,
// at least 64 MiB; or nothing, and `why` says what is wrong with each.
std::optional<CowPlace> find_cow_place(const Driver& driver, const snbf_info& node,
                                       const std::vector<std::string>& dirs, std::string* why);
uint64_t cow_room_for(uint64_t dev_size);
// Throws if the directory may not hold the COW files of the node's snaps.
void check_cow_dir(const Driver& driver, const snbf_info& node, const std::string& dir);
uint64_t free_bytes_in(const std::string& dir);

struct NewSnap {
  std::string name;  // another one is taken, by a number behind it, if it is not free
  std::string cow_dir;
  uint32_t chunk_size = 0;
  bool overwrite = false;
  bool name_is_fixed = false;
};
struct MadeSnap {
  snbf_info node;
  uint64_t start_us = 0;
};
// What the library's refusal to make it means to whoever asked for it.
Failure snap_refusal(int rc, const snbf_info& filter, const NewSnap& wanted);
MadeSnap make_snap(const Driver& driver, const snbf_info& filter, const NewSnap& wanted);

// Deletes the node, or waits a moment for whoever just looks at it: 0 or a negated error number.
int delete_snap(const Driver& driver, const snbf_info& snap, int* postponed);

}  // namespace snbf
