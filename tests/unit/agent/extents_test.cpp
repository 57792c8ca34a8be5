// SPDX-License-Identifier: GPL-2.0-only
#include "extents.h"

#include <gtest/gtest.h>

#include <random>

namespace snbf {
namespace {

Extents with(uint64_t extent_cnt, std::initializer_list<uint64_t> set, uint64_t tail_bytes = 4096) {
  Extents extents(extent_cnt, 4096, (extent_cnt - 1) * 4096 + tail_bytes);
  for (uint64_t extent : set) extents.set(extent);
  return extents;
}

TEST(Extents, TheFirstExtentIsTheLeastSignificantBitOfTheFirstByte) {
  const Extents extents = with(20, {0, 9, 19});
  EXPECT_EQ(extents.bytes(), (std::vector<uint8_t>{0x01, 0x02, 0x08}));
}

TEST(Extents, RunsAreJoinedAcrossBytesAndCutAtTheLastExtent) {
  Extents extents = with(20, {0, 6, 7, 8, 9, 19});
  extents.bytes()[2] |= 0xF0;  // bits behind the last extent mean nothing
  EXPECT_EQ(extents.runs(), (std::vector<snbf::Run>{{0, 1}, {6, 4}, {19, 1}}));
  EXPECT_EQ(extents.count(), 6u);
}

TEST(Extents, OnlyBitsOfExtentsMakeItFull) {
  Extents extents(9, 4096, 9 * 4096);
  extents.bytes() = {0xFF, 0xFE};
  EXPECT_FALSE(extents.all());
  extents.bytes() = {0xFF, 0x01};
  EXPECT_TRUE(extents.all());
  extents.bytes() = {0x00, 0xFE};
  EXPECT_TRUE(extents.none());
}

TEST(Extents, TheLastExtentEndsWithTheDevice) {
  const Extents extents = with(3, {1, 2}, 512);
  EXPECT_EQ(extents.covered_bytes(), 4096u + 512u);
  EXPECT_EQ(extents.range_of({1, 2}), (ByteRange{4096, 4096 + 512}));
  EXPECT_EQ(with(3, {0, 1}, 512).covered_bytes(), 8192u);
}

TEST(Extents, MergeIsTheUnion) {
  Extents extents = with(20, {1, 8});
  extents.merge(with(20, {8, 19}));
  EXPECT_EQ(extents.runs(), (std::vector<snbf::Run>{{1, 1}, {8, 1}, {19, 1}}));
}

TEST(Extents, SubtractLeavesWhatTheOtherHasNot) {
  Extents extents = with(20, {1, 8, 19});
  extents.subtract(with(20, {0, 8}));
  EXPECT_EQ(extents.runs(), (std::vector<snbf::Run>{{1, 1}, {19, 1}}));
}

TEST(Extents, RunsHoldExactlyTheSetBitsOfAnyBitmap) {
  std::mt19937 random(1);
  for (uint64_t extent_cnt = 1; extent_cnt < 80; ++extent_cnt) {
    Extents extents(extent_cnt, 4096, extent_cnt * 4096);
    for (auto& byte : extents.bytes()) byte = static_cast<uint8_t>(random() & random());
    Extents again(extent_cnt, 4096, extent_cnt * 4096);
    uint64_t end_before = 0;
    for (const snbf::Run& run : extents.runs()) {
      if (end_before != 0) {
        EXPECT_GT(run.first, end_before) << "runs must not touch";
      }
      for (uint64_t extent = run.first; extent < run.first + run.count; ++extent) again.set(extent);
      end_before = run.first + run.count;
    }
    for (uint64_t extent = 0; extent < extent_cnt; ++extent) {
      ASSERT_EQ(again.test(extent), extents.test(extent)) << extent << " of " << extent_cnt;
    }
  }
}

TEST(Density, SharesOfEachSlice) {
  EXPECT_EQ(density(with(8, {0, 1, 4}), 4), (std::vector<double>{1.0, 0.0, 0.5, 0.0}));
}

TEST(Density, AWidePictureOfFewExtentsRepeatsThem) {
  EXPECT_EQ(density(with(2, {1}), 4), (std::vector<double>{0.0, 0.0, 1.0, 1.0}));
}

}  // namespace
}  // namespace snbf
