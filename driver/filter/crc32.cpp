// SPDX-License-Identifier: GPL-2.0-only
#include "filter/crc32.h"

namespace snbf {

namespace {

constexpr u32 kPolynomial = 0xEDB88320;

struct Crc32Table {
  u32 entries[256] = {};

  constexpr Crc32Table() {
    for (u32 n = 0; n < 256; ++n) {
      u32 value = n;
      for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? kPolynomial : 0);
      entries[n] = value;
    }
  }
};

constexpr Crc32Table crc32_table;
static_assert(crc32_table.entries[0] == 0 && crc32_table.entries[1] == 0x77073096 &&
              crc32_table.entries[2] == 0xEE0E612C && crc32_table.entries[255] == 0x2D02EF8D);

}  // namespace

}  // namespace snbf

snbf::u32 snbf_crc32(const void* data, int length, snbf::u32* checksum) {
  const snbf::u8* bytes = static_cast<const snbf::u8*>(data);
  snbf::u32 value = *checksum;
  for (int i = 0; i < length; ++i) {
    value = (value >> 8) ^ snbf::crc32_table.entries[(value ^ bytes[i]) & 0xFF];
  }
  *checksum = value;
  return value;
}
