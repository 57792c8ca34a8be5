// Numbers into bytes, for structures put together by hand.
#pragma once

#include <vector>

#include "base/types.h"

namespace snbf::sim {

inline void put_le(std::vector<u8>& bytes, u64 at, u64 value, int width) {
  for (int n = 0; n < width; ++n) bytes[at + static_cast<u64>(n)] = static_cast<u8>(value >> n * 8);
}
inline void put_be(std::vector<u8>& bytes, u64 at, u64 value, int width) {
  for (int n = 0; n < width; ++n) {
    bytes[at + static_cast<u64>(n)] = static_cast<u8>(value >> (width - 1 - n) * 8);
  }
}

}  // namespace snbf::sim
