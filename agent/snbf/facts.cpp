// SPDX-License-Identifier: GPL-2.0-only
#include "facts.h"

#include <fmt/format.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <sstream>

#include "failure.h"
#include "files.h"
#include "reasons.h"
#include "snaps.h"

namespace snbf {

namespace {

constexpr uint64_t kSectorBytes = 512;
constexpr int kSectorsWritten = 7;  // which word of the statistics

SnapFacts snap_facts(const Snap& snap) {
  SnapFacts facts;
  facts.name = snap.name();
  facts.state = snap.state();
  facts.about = describe_state(snap);
  facts.created = snap.record.created;
  facts.opens = snap.node ? snap.node->use_cnt : 0;
  facts.cow_bytes = snap.cow_bytes();
  facts.cow_free_bytes = free_bytes_in(folder_of(snap.data_file()));
  return facts;
}

std::optional<uint64_t> written_bytes(const snbf_info& node) {
  const dev_t device = device_of(node_path(node));
  std::string text;
  const std::string path = fmt::format("/sys/dev/block/{}:{}/stat", major(device), minor(device));
  if (device == 0 || !read_file(path, &text)) return std::nullopt;
  return written_bytes_of(text);
}

bool backup_unfinished(const Driver& driver, const snbf_info& node) {
  int pending = 0;
  return libsnbf_capture_pending(driver.get(), node.minor, &pending) == 0 && pending;
}

BitmapFacts bitmap_facts(const Driver& driver, const snbf_info& node, uint32_t type) {
  return {driver.get(node, type), driver.unsaved(node, type)};
}

void add_snaps(const Driver& driver, const snbf_info& node, NodeFacts* facts) {
  const std::vector<Snap> snaps = snaps_of(driver, node);
  for (const Snap& snap : snaps) facts->snaps.push_back(snap_facts(snap));
  // What is overwritten is copied into the newest snap alone.
  if (!snaps.empty()) facts->snaps.back().full_in_s = seconds_until_full(snaps.back());
}

}  // namespace

std::optional<uint64_t> written_bytes_of(const std::string& statistics) {
  std::istringstream words(statistics);
  uint64_t value = 0;
  for (int i = 0; i < kSectorsWritten; ++i) {
    if (!(words >> value)) return std::nullopt;
  }
  return value * kSectorBytes;
}

std::string why_next_full(const libsnbf_state& state) {
  return state.incr_point[0] ? state.distrust : kWhyFirst;
}

libsnbf_last_capture last_capture_of(const Driver& driver, const snbf_info& node) {
  libsnbf_last_capture last{};
  libsnbf_capture_last(driver.get(), node.minor, &last);
  return last;
}

NodeFacts look_at(const Driver& driver, const snbf_info& node) {
  const libsnbf_state state = read_state(node);
  NodeFacts facts;
  facts.name = node.name;
  facts.device = node_path(node);
  facts.partition = node.hdd_name;
  facts.uuid = node.uuid;
  facts.started = node.started != 0;
  facts.opens = node.use_cnt;
  facts.size = node.dev_size;
  facts.extent_size = node.extent_size;
  facts.incr = bitmap_facts(driver, node, SNBF_BMP_INCR);
  facts.diff = bitmap_facts(driver, node, SNBF_BMP_DIFF);
  facts.next_full = why_next_full(state);
  facts.unfinished = backup_unfinished(driver, node);
  const libsnbf_last_capture last = last_capture_of(driver, node);
  facts.last_backup = last.any;
  facts.last_full_backup = last.full;
  facts.written_bytes = written_bytes(node);
  add_snaps(driver, node, &facts);
  return facts;
}

std::vector<NodeFacts> look_at_all(const Driver& driver) {
  std::vector<NodeFacts> found;
  for (const snbf_info& node : driver.filters()) {
    try {
      found.push_back(look_at(driver, node));
    } catch (const Failure&) {
      snbf_info now;
      const bool there = libsnbf_get_info(driver.get(), node.minor, &now) == 0;
      if (there && std::string(now.uuid) == node.uuid) throw;
    }
  }
  return found;
}

}  // namespace snbf
