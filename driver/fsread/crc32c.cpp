// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/crc32c.h"

namespace snbf {

namespace {

// Reflected tables, one entry for each value of a byte.
template <typename Word, Word kPolynomial>
struct Table {
  Word of[256] = {};

  constexpr Table() {
    for (u32 byte = 0; byte < 256; ++byte) {
      Word value = static_cast<Word>(byte);
      for (int bit = 0; bit < 8; ++bit) {
        value = static_cast<Word>((value >> 1) ^ ((value & 1) != 0 ? kPolynomial : 0));
      }
      of[byte] = value;
    }
  }
};

constexpr Table<u32, 0x82F63B78> kTable32;
constexpr Table<u16, 0xA001> kTable16;

}  // namespace

u32 crc32c(u32 value, const u8* data, size_t bytes) {
  for (size_t n = 0; n < bytes; ++n) value = value >> 8 ^ kTable32.of[(value ^ data[n]) & 0xFF];
  return value;
}

u16 crc16(u16 value, const u8* data, size_t bytes) {
  for (size_t n = 0; n < bytes; ++n) {
    value = static_cast<u16>(value >> 8 ^ kTable16.of[(value ^ data[n]) & 0xFF]);
  }
  return value;
}

}  // namespace snbf
