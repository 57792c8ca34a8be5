// SPDX-License-Identifier: GPL-2.0-only
#include "extents.h"

#include <algorithm>
#include <bit>
#include <cassert>

namespace snbf {

void Extents::set_all() { std::fill(bytes_.begin(), bytes_.end(), 0xFF); }

uint64_t Extents::count() const {
  uint64_t total = 0;
  for (uint64_t i = 0; i < extent_cnt_ / 8; ++i) total += std::popcount(bytes_[i]);
  if (extent_cnt_ % 8 != 0) {
    const auto mask = static_cast<uint8_t>((1u << (extent_cnt_ % 8)) - 1);
    total += std::popcount(static_cast<uint8_t>(bytes_.back() & mask));
  }
  return total;
}

void Extents::merge(const Extents& other) {
  assert(same_shape(other));
  for (size_t i = 0; i < bytes_.size(); ++i) bytes_[i] |= other.bytes_[i];
}

void Extents::subtract(const Extents& other) {
  assert(same_shape(other));
  for (size_t i = 0; i < bytes_.size(); ++i) bytes_[i] &= static_cast<uint8_t>(~other.bytes_[i]);
}

std::vector<Run> Extents::runs() const {
  std::vector<Run> found;
  for (uint64_t extent = 0; extent < extent_cnt_;) {
    if (bytes_[extent / 8] == 0) {
      extent = (extent / 8 + 1) * 8;
    } else if (!test(extent)) {
      ++extent;
    } else {
      Run run{extent, 0};
      while (extent < extent_cnt_ && test(extent)) ++extent;
      run.count = extent - run.first;
      found.push_back(run);
    }
  }
  return found;
}

uint64_t Extents::covered_bytes() const {
  const uint64_t set = count();
  if (set == 0 || !test(extent_cnt_ - 1)) return set * extent_size_;
  return (set - 1) * extent_size_ + range_of({extent_cnt_ - 1, 1}).length;
}

ByteRange Extents::range_of(const Run& run) const {
  const uint64_t offset = run.first * extent_size_;
  return {offset, std::min((run.first + run.count) * extent_size_, dev_size_) - offset};
}

std::vector<double> density(const Extents& extents, size_t cells) {
  std::vector<double> shares(cells, 0.0);
  const uint64_t total = extents.extent_cnt();
  if (total == 0) return shares;
  for (size_t cell = 0; cell < cells; ++cell) {
    const uint64_t first = total * cell / cells;
    const uint64_t end = std::max(first + 1, total * (cell + 1) / cells);
    uint64_t set = 0;
    for (uint64_t extent = first; extent < end && extent < total; ++extent) {
      set += extents.test(extent) ? 1 : 0;
    }
    shares[cell] = static_cast<double>(set) / static_cast<double>(end - first);
  }
  return shares;
}

}  // namespace snbf
