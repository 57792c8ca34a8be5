// SPDX-License-Identifier: GPL-2.0-only
// The algebra of change bitmaps: bit e is bit (e mod 8) of byte e / 8, least significant first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace snbf {

struct Run {
  uint64_t first = 0;  // extent
  uint64_t count = 0;
  bool operator==(const Run&) const = default;
};

struct ByteRange {
  uint64_t offset = 0;
  uint64_t length = 0;
  bool operator==(const ByteRange&) const = default;
};

// A copy of a node's bitmap. Bits behind the last extent have no meaning: they are never looked at.
class Extents {
 public:
  Extents() = default;
  Extents(uint64_t extent_cnt, uint64_t extent_size, uint64_t dev_size)
      : extent_cnt_(extent_cnt),
        extent_size_(extent_size),
        dev_size_(dev_size),
        bytes_(extent_cnt == 0 ? 0 : (extent_cnt - 1) / 8 + 1) {}

  uint64_t extent_cnt() const { return extent_cnt_; }
  uint64_t extent_size() const { return extent_size_; }
  uint64_t dev_size() const { return dev_size_; }
  const std::vector<uint8_t>& bytes() const { return bytes_; }
  std::vector<uint8_t>& bytes() { return bytes_; }

  bool test(uint64_t extent) const { return (bytes_[extent / 8] >> (extent % 8)) & 1; }
  void set(uint64_t extent) { bytes_[extent / 8] |= static_cast<uint8_t>(1u << (extent % 8)); }
  void set_all();

  uint64_t count() const;
  bool none() const { return count() == 0; }
  bool all() const { return count() == extent_cnt_; }
  // Both must be of one shape.
  void merge(const Extents& other);
  void subtract(const Extents& other);

  std::vector<Run> runs() const;
  // The bytes that the set extents cover; the last extent ends with the device.
  uint64_t covered_bytes() const;
  ByteRange range_of(const Run& run) const;

  bool same_shape(const Extents& other) const {
    return extent_cnt_ == other.extent_cnt_ && extent_size_ == other.extent_size_ &&
           dev_size_ == other.dev_size_;
  }

 private:
  uint64_t extent_cnt_ = 0;
  uint64_t extent_size_ = 0;
  uint64_t dev_size_ = 0;
  std::vector<uint8_t> bytes_;
};

// The share of set extents, 0 to 1, in each of `cells` equal slices of the device.
std::vector<double> density(const Extents& extents, size_t cells);

}  // namespace snbf
