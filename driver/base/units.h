// SPDX-License-Identifier: GPL-2.0-only
// Sectors, extents and chunks do not mix, and each is converted in one place.
#pragma once

#include "base/types.h"

namespace snbf {

struct Sector {
  u64 value;
};

// `count` sectors from `first`; may be empty.
struct SectorRange {
  Sector first;
  u64 count;

  constexpr bool empty() const { return count == 0; }
  // Of a range that is not empty.
  constexpr u64 last() const { return first.value + count - 1; }
  // Inclusive ranges that meet. An empty range at sector s reaches from s to s - 1.
  constexpr bool overlaps(const SectorRange& other) const {
    return static_cast<s64>(first.value) <= static_cast<s64>(other.last()) &&
           static_cast<s64>(other.first.value) <= static_cast<s64>(last());
  }
};

// Numbered blocks of one power-of-two size: extents, chunks, or the 4 KiB blocks of the hashes.
// Covered blocks are first to last, inclusive, so an empty request at a sector that is not the first of its
// block still lies in that block: kept, and pinned by tests.
struct BlockSpan {
  u64 first;
  u64 last;

  constexpr bool empty() const { return static_cast<s64>(first) > static_cast<s64>(last); }
  constexpr u64 count() const { return empty() ? 0 : last - first + 1; }
};

class BlockGeometry {
 public:
  // `shift` is log2 of the size in bytes, at least 9.
  constexpr explicit BlockGeometry(u32 shift) : shift_(shift) {}

  constexpr BlockSpan covering(SectorRange range) const {
    const u32 sector_shift = shift_ - 9;
    return {range.first.value >> sector_shift,
            static_cast<u64>(static_cast<s64>(range.last()) >> sector_shift)};
  }
  constexpr u64 sectors() const { return u64{1} << (shift_ - 9); }

 private:
  u32 shift_;
};

static_assert(BlockGeometry{12}.covering({Sector{7}, 8}).count() == 2);
static_assert(BlockGeometry{12}.covering({Sector{8}, 0}).empty());
static_assert(BlockGeometry{12}.covering({Sector{4}, 0}).count() == 1);
static_assert(BlockGeometry{12}.covering({Sector{0}, 0}).empty());

constexpr bool is_power_of_two(u64 value) { return value != 0 && (value & (value - 1)) == 0; }
constexpr u32 log2_floor(u64 value) { return value == 0 ? 0 : 63 - static_cast<u32>(__builtin_clzll(value)); }

}  // namespace snbf
