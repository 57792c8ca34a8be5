#include "filter/crc32.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace snbf {
namespace {

u32 crc_of(const void* data, int length) {
  u32 checksum = 0xFFFFFFFF;
  EXPECT_EQ(snbf_crc32(data, length, &checksum), checksum);
  return checksum;
}

TEST(Crc32, IsTheComplementOfTheUsualOne) {
  // The check value of CRC-32 is 0xCBF43926.
  EXPECT_EQ(crc_of("123456789", 9), ~u32{0xCBF43926});
}

TEST(Crc32, OfNothingLeavesTheRegister) {
  for (int length : {0, -1, -1000}) {
    u32 checksum = 0x12345678;
    EXPECT_EQ(snbf_crc32(nullptr, length, &checksum), 0x12345678u);
    EXPECT_EQ(checksum, 0x12345678u);
  }
}

TEST(Crc32, GoesOnFromTheRegister) {
  const char* text = "a bitmap in two pieces";
  const int length = static_cast<int>(std::strlen(text));
  for (int cut = 0; cut <= length; ++cut) {
    u32 checksum = 0xFFFFFFFF;
    snbf_crc32(text, cut, &checksum);
    snbf_crc32(text + cut, length - cut, &checksum);
    EXPECT_EQ(checksum, crc_of(text, length));
  }
}

TEST(Crc32, SeesEverySingleBit) {
  std::vector<u8> zeros(125, 0);
  const u32 clean = crc_of(zeros.data(), 125);
  EXPECT_NE(clean, 0xFFFFFFFFu);
  for (int bit = 0; bit < 1000; ++bit) {
    zeros[bit / 8] ^= static_cast<u8>(1 << (bit % 8));
    EXPECT_NE(crc_of(zeros.data(), 125), clean);
    zeros[bit / 8] ^= static_cast<u8>(1 << (bit % 8));
  }
}

}  // namespace
}  // namespace snbf
