// SPDX-License-Identifier: GPL-2.0-only
#include "usage.h"

#include <fmt/format.h>

#include <algorithm>

#include "destination.h"
#include "failure.h"
#include "fs_end.h"

namespace snbf {

namespace {

bool test_bit(const std::vector<uint8_t>& bits, uint64_t at) {
  return (bits[at / 8] >> (at % 8)) & 1;
}

std::string why_none(const std::string& type) {
  if (type.empty()) return "no file system is recognised on it for certain";
  if (!has_reader(type)) return fmt::format("the driver has no reader for {}", type);
  return fmt::format(
      "the driver calls no chunk of this {} free: it is full, or the driver could not read its "
      "maps "
      "(the kernel log says why)",
      type);
}

}  // namespace

Extents used_extents(const Extents& shape, const std::vector<uint8_t>& map, uint64_t unit,
                     uint64_t fs_end) {
  Extents used(shape.extent_cnt(), shape.extent_size(), shape.dev_size());
  for (uint64_t extent = 0; extent < used.extent_cnt(); ++extent) {
    const ByteRange range = used.range_of({extent, 1});
    const uint64_t end = range.offset + range.length;
    bool holds = end > fs_end;
    for (uint64_t at = range.offset / unit; !holds && at * unit < end; ++at)
      holds = test_bit(map, at);
    if (holds) used.set(extent);
  }
  return used;
}

Usage usage_of(const Driver& driver, const snbf_info& node, const snbf_info& snap,
               const std::string& device) {
  Usage usage;
  const Extents shape = driver.empty_bitmap(node);
  const uint32_t unit = std::max(snap.chunk_size, node.extent_size);
  const uint64_t units = (node.dev_size - 1) / unit + 1;
  const std::vector<uint8_t> map = driver.used_map(snap, unit, units);
  const std::string type = file_system_of(device);
  const auto end = file_system_end(device, type);
  usage.used = used_extents(shape, map, unit, end.value_or(0));
  bool any_free = false;
  for (uint64_t at = 0; at < units && !any_free; ++at) any_free = !test_bit(map, at);
  if (!any_free || !has_reader(type)) {
    usage.why_all = why_none(type);
  } else if (!end) {
    usage.why_all = fmt::format("the superblock of this {} does not say where it ends", type);
  }
  return usage;
}

}  // namespace snbf
