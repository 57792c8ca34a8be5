#include "fsread/blkbmp.h"

#include <gtest/gtest.h>

#include <vector>

namespace snbf {
namespace {

// One fragment with its two parts, stored as the map stores them.
struct Fragment {
  std::vector<u16> index;
  std::vector<u8> slots;

  snbf_blkbmp_frag record(int piece_size) {
    const int slot_shift = __builtin_ctz(static_cast<unsigned>(piece_size));
    return {static_cast<int>(index.size()),
            slot_shift + 3,
            piece_size,
            piece_size * 8 - 1,
            slot_shift,
            index.data(),
            slots.data()};
  }
};

TEST(BlockMapLookup, EverythingIsUsedWhileNothingIsKnown) {
  const snbf_blkbmp map = {};
  for (u64 chunk : {u64{0}, u64{1}, u64{1} << 20, ~u64{0}}) {
    EXPECT_EQ(snbf_blkbmp_is_used(&map, chunk), 1);
  }
}

TEST(BlockMapLookup, ReadsThePieceThatTheIndexNames) {
  // Pieces of 4 bytes, 32 chunks: ones, zeros, a mixed one, zeros.
  Fragment parts = {{1, 0, 2, 0}, {0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x80, 0x00, 0xA0}};
  snbf_blkbmp_frag frag = parts.record(4);
  const snbf_blkbmp map = {1, 128, 1, &frag};
  for (u64 chunk = 0; chunk < 128; ++chunk) {
    const bool used =
        chunk < 32 || chunk == 64 || chunk == 64 + 15 || chunk == 64 + 29 || chunk == 64 + 31;
    EXPECT_EQ(snbf_blkbmp_is_used(&map, chunk), used ? 1 : 0) << chunk;
  }
}

TEST(BlockMapLookup, ChunksBeyondTheMapAreUsed) {
  Fragment parts = {{0}, {0, 0, 0, 0}};
  snbf_blkbmp_frag frag = parts.record(4);
  const snbf_blkbmp map = {1, 30, 1, &frag};
  EXPECT_EQ(snbf_blkbmp_is_used(&map, 29), 0);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, 30), 1);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, 31), 1);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, u64{1} << 40), 1);
}

TEST(BlockMapLookup, FragmentsCoverAMillionChunksEach) {
  constexpr int kFull = 1 << 20;
  // All zeros but the last chunk of the first fragment and the first of the second, whose pieces
  // differ in size.
  Fragment first = {std::vector<u16>(256, 0), std::vector<u8>(1024, 0)};
  first.index[255] = 1;
  first.slots[1023] = 0x80;
  Fragment second = {{0, 1}, std::vector<u8>(16, 0)};
  second.slots[0] = 0x01;
  second.slots[15] = 0xFF;
  snbf_blkbmp_frag frags[] = {first.record(512), second.record(8)};
  const snbf_blkbmp map = {1, kFull + 128, 2, frags};
  EXPECT_EQ(snbf_blkbmp_is_used(&map, 0), 0);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, kFull - 2), 0);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, kFull - 1), 1);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, kFull), 1);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, kFull + 1), 0);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, kFull + 119), 0);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, kFull + 120), 1);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, kFull + 127), 1);
}

TEST(BlockMapLookup, TheWholeFragmentMayBeOnePiece) {
  std::vector<u8> bits(131072, 0);
  bits[131071] = 0x80;
  bits[65536] = 0x10;
  Fragment parts = {{0}, bits};
  snbf_blkbmp_frag frag = parts.record(131072);
  const snbf_blkbmp map = {1, 1 << 20, 1, &frag};
  EXPECT_EQ(snbf_blkbmp_is_used(&map, (1 << 20) - 1), 1);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, 65536 * 8 + 4), 1);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, 65536 * 8 + 5), 0);
}

}  // namespace
}  // namespace snbf
