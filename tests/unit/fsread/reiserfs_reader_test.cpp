#include "fsread/reiserfs_reader.h"

#include "byte_image.h"
#include "fsread/reiserfs_claim.h"

namespace snbf::sim {
namespace {

using Chunks = std::set<u64>;

// A ReiserFS without a tree: superblock and bitmaps, each where it belongs.
struct ReiserfsImage {
  u32 block_size = 4096;
  u32 block_count = 100000;
  const char* magic = "ReIsEr2Fs";
  std::set<u64> used = {0, 1, 16, 17};
  int free_lie = 0;  // added to the superblock's count of free blocks
  u16 state = 1;

  u32 per_bitmap() const { return block_size * 8; }
  u32 bitmap_count() const { return (block_count + per_bitmap() - 1) / per_bitmap(); }
  u64 bitmap_block(u32 n) const { return n == 0 ? 65536 / block_size + 1 : u64{n} * per_bitmap(); }
  u64 device_bytes() const { return u64{block_count} * block_size; }

  void put_on(Device* device) const {
    Bytes super(4096);
    u32 free_blocks = 0;
    for (u32 n = 0; n < bitmap_count(); ++n) {
      Bytes bitmap(block_size);
      for (u64 bit = 0; bit < per_bitmap(); ++bit) {
        const u64 block = u64{n} * per_bitmap() + bit;
        const bool is_free = block < block_count && !used.contains(block);
        free_blocks += is_free ? 1 : 0;
        if (!is_free) set_bit_of(bitmap.data(), bit);
      }
      device->poke(bitmap_block(n) * block_size / 512, bitmap);
    }
    put_le(super, 0, block_count, 4);
    put_le(super, 4, free_blocks + static_cast<u32>(free_lie), 4);
    put_le(super, 44, block_size, 2);
    put_le(super, 50, state, 2);
    std::memcpy(super.data() + 52, magic, std::strlen(magic));
    put_le(super, 70, bitmap_count(), 2);
    put_le(super, 72, 2, 2);
    put_le(super, 76, 33, 4);
    if (block_size < 4096) super.resize(block_size);
    device->poke(128, super);
  }
};

struct OnDevice {
  OnDevice(Sim& sim, const ReiserfsImage& image)
      : disk(sim, {.name = "sd" + std::to_string(sim.random()), .bytes = image.device_bytes()}) {
    image.put_on(disk.device);
  }
  plat_bdev* bdev() const { return disk.bdev; }
  OpenDevice disk;
};

int read_chunks(plat_bdev* bdev, u64 first, u32 chunk_size, u32 count, Chunks* used) {
  ReiserfsReader* reader = reiserfs_reader_init(bdev, nullptr);
  EXPECT_NE(reader, nullptr);
  Bytes bits((count + 7) / 8, 0xA5);
  const int rc = reiserfs_reader_read(reader, first, chunk_size, bits.data(), count);
  *used = set_bits(bits, bits.size() * 8);
  reiserfs_reader_destroy(reader);
  return rc;
}

SIM_TEST(ReiserfsInit, AnswersTheBlockSizeAndSaysWhatItFound) {
  LoggedParts parts;
  OnDevice image(sim, {.state = 2});
  u32 block_size = 0;
  ReiserfsReader* reader = reiserfs_reader_init(image.bdev(), &block_size);
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(block_size, 4096u);
  for (const char* line :
       {"reiserfs_reader_init(): Detected ReiserFS on hdd(8, ", "   magic=\"ReIsEr2Fs\"",
        "   block_size=4096", "   block_count=100000", "   free_count=99996", "   bitmaps=4",
        "   state=2 (ERROR)", "   version=2", "   inode_generation=33"}) {
    EXPECT_EQ(sim.log().count(line, 6), 1) << line;
  }
  EXPECT_FALSE(sim.log().has_errors());
  EXPECT_EQ(reiserfs_reader_destroy(reader), 0);
  EXPECT_EQ(reiserfs_reader_destroy(nullptr), 0);
  sim.log().clear();
  OnDevice valid(sim, {});
  reiserfs_reader_destroy(reiserfs_reader_init(valid.bdev(), nullptr));
  EXPECT_TRUE(sim.log().contains("   state=1 (VALID)"));
}

SIM_TEST(ReiserfsInit, OtherFormatsAreNotRecognised) {
  LoggedParts parts;
  for (const char* magic : {"ReIsErFs", "ReIsEr3Fs", "ReIsEr2FsX", ""}) {
    sim.log().clear();
    OnDevice image(sim, {.magic = magic});
    EXPECT_EQ(reiserfs_reader_init(image.bdev(), nullptr), nullptr);
    EXPECT_EQ(sim.log().count(") doesn't have ReiserFS.", 6), 1);
    EXPECT_FALSE(sim.log().has_errors());
  }
}

SIM_TEST(ReiserfsInit, RefusesASuperblockThatDisagrees) {
  LoggedParts parts;
  for (int lie : {-1, 1}) {
    sim.log().clear();
    OnDevice image(sim, {.free_lie = lie});
    EXPECT_EQ(reiserfs_reader_init(image.bdev(), nullptr), nullptr);
    const std::string line = ") says that it has " + std::to_string(99996 + lie) +
                             " blocks, but bitmaps argue for 99996";
    EXPECT_EQ(sim.log().count(line, 3), 1);
    EXPECT_TRUE(sim.log().contains(
        "reiserfs_reader_init(): Unexpected inconsistency of ReiserFS SB on hdd=(8, "));
  }
}

SIM_TEST(ReiserfsInit, RefusesWhatCannotBe) {
  LoggedParts parts;
  struct Field {
    u64 at;
    u64 value;
    int width;
  };
  // Block size, block count, number of bitmaps.
  for (Field field : {Field{44, 0, 2}, Field{44, 4097, 2}, Field{44, 256, 2}, Field{0, 0, 4},
                      Field{70, 0, 2}, Field{70, 3, 2}, Field{0, 0xFFFFFFFF, 4}}) {
    sim.log().clear();
    OnDevice image(sim, {});
    Bytes super = image.disk.device->peek(128, 4096);
    put_le(super, field.at, field.value, field.width);
    image.disk.device->poke(128, super);
    EXPECT_EQ(reiserfs_reader_init(image.bdev(), nullptr), nullptr);
    EXPECT_EQ(sim.log().count("reiserfs_reader_init(): Superblock of hdd(8, ", 3), 1);
  }
  // More than a page cannot be read block by block.
  sim.log().clear();
  OnDevice large(sim, {.block_size = 8192});
  EXPECT_EQ(reiserfs_reader_init(large.bdev(), nullptr), nullptr);
  EXPECT_EQ(
      sim.log().count("reiserfs_reader_init(): Failed to read Bitmap #0 (from block 9): rc=-22", 3),
      1);
}

SIM_TEST(ReiserfsInit, EveryReadMayFail) {
  LoggedParts parts;
  const ReiserfsImage layout;
  OnDevice image(sim, layout);
  image.disk.device->fail_range(128, 8, Op::Read, -EIO);
  EXPECT_EQ(reiserfs_reader_init(image.bdev(), nullptr), nullptr);
  EXPECT_EQ(sim.log().count("reiserfs_reader_init(): Failed to read Super Block of hdd(8, ", 3), 1);
  EXPECT_TRUE(sim.log().contains(") at offset 65536: rc=-5"));
  image.disk.device->clear_failures();
  image.disk.device->fail_range(layout.bitmap_block(2) * 8, 8, Op::Read, -EIO);
  EXPECT_EQ(reiserfs_reader_init(image.bdev(), nullptr), nullptr);
  EXPECT_EQ(sim.log().count(
                "reiserfs_reader_init(): Failed to read Bitmap #2 (from block 65536): rc=-5", 3),
            1);
}

SIM_TEST(ReiserfsInit, EveryAllocationMayFail) {
  LoggedParts parts;
  OnDevice image(sim, {.block_size = 1024, .block_count = 5000});
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    sim.log().clear();
                    ReiserfsReader* reader = reiserfs_reader_init(image.bdev(), nullptr);
                    if (sim.fault_reached(Fault::AnyAllocation)) {
                      EXPECT_EQ(reader, nullptr);
                      EXPECT_TRUE(sim.log().contains("(): Memory allocation failed"));
                    }
                    reiserfs_reader_destroy(reader);
                  });
       ++nth) {
  }
  EXPECT_GE(nth, 8);
}

SIM_TEST(ReiserfsRead, SmallBlocksHaveTheirBitmapBehindTheSuperblock) {
  LoggedParts parts;
  const ReiserfsImage layout = {
      .block_size = 1024, .block_count = 20001, .used = {3, 64, 65, 8192, 16384, 19999, 20000}};
  EXPECT_EQ(layout.bitmap_block(0), 65u);
  OnDevice image(sim, layout);
  Chunks used;
  EXPECT_EQ(read_chunks(image.bdev(), 0, 1024, 20100, &used), 0);
  EXPECT_EQ(used, layout.used);
  EXPECT_EQ(read_chunks(image.bdev(), 0, 8192, 2600, &used), 0);
  EXPECT_EQ(used, (Chunks{0, 8, 1024, 2048, 2499, 2500}));
  EXPECT_EQ(read_chunks(image.bdev(), 1024, 8192, 1100, &used), 0);
  EXPECT_EQ(used, (Chunks{0, 1024}));
  // A used block at the head of a chunk that reaches over several bitmaps.
  EXPECT_EQ(read_chunks(image.bdev(), 0, 16u << 20, 9, &used), 0);
  EXPECT_EQ(used, (Chunks{0, 1}));
}

SIM_TEST(ReiserfsRead, FetchesOnlyWhatItNeeds) {
  LoggedParts parts;
  const ReiserfsImage layout = {.block_count = 5 * 32768, .used = {3 * 32768 + 200, 4 * 32768}};
  OnDevice image(sim, layout);
  ReiserfsReader* reader = reiserfs_reader_init(image.bdev(), nullptr);
  ASSERT_NE(reader, nullptr);
  Bytes bits(8192, 0);
  image.disk.device->clear_history();
  EXPECT_EQ(reiserfs_reader_read(reader, 3 * 32768 + 100, 4096, bits.data(), 65536), 0);
  EXPECT_EQ(set_bits(bits, 65536), (Chunks{100, 32668}));
  ASSERT_EQ(image.disk.device->history().size(), 2u);
  EXPECT_EQ(image.disk.device->history()[0].sector, 3u * 32768 * 8);
  EXPECT_EQ(image.disk.device->history()[1].sector, 4u * 32768 * 8);
  // The last one is kept.
  EXPECT_EQ(reiserfs_reader_read(reader, 4 * 32768, 4096, bits.data(), 100), 0);
  EXPECT_EQ(image.disk.device->history().size(), 2u);
  image.disk.device->fail_range(3 * 32768 * 8, 8, Op::Read, -EIO);
  EXPECT_EQ(reiserfs_reader_read(reader, 3 * 32768, 4096, bits.data(), 100), -EIO);
  EXPECT_EQ(sim.log().count("reiserfs_reader_read(): Failed to read Bitmap #3: rc=-5", 3), 1);
  // Behind the end.
  EXPECT_EQ(reiserfs_reader_read(reader, 0xFFFFFFFF, 1u << 31, bits.data(), 65536), 0);
  EXPECT_EQ(set_bits(bits, 65536), Chunks{});
  reiserfs_reader_destroy(reader);
}

SIM_TEST(ReiserfsRead, RefusesChunksThatItCannotAnswerFor) {
  LoggedParts parts;
  OnDevice image(sim, {});
  ReiserfsReader* reader = reiserfs_reader_init(image.bdev(), nullptr);
  u8 bits = 0x5A;
  EXPECT_EQ(reiserfs_reader_read(nullptr, 0, 4096, &bits, 8), -EINVAL);
  EXPECT_EQ(reiserfs_reader_read(reader, 0, 1, &bits, 8), -EINVAL);
  EXPECT_EQ(reiserfs_reader_read(reader, 0, 6144, &bits, 8), -EINVAL);
  EXPECT_EQ(reiserfs_reader_read(reader, 0, 2048, &bits, 8), -EINVAL);
  for (const char* line : {"Invalid reader's context NULL.", "Chunk size (1) must be a power of 2.",
                           "Chunk size (6144) must be a power of 2.",
                           "Chunk size (2048) is smaller than FS block size (4096)."}) {
    EXPECT_EQ(sim.log().count(std::string("reiserfs_reader_read(): ") + line, 3), 1);
  }
  EXPECT_EQ(bits, 0x5A);
  reiserfs_reader_destroy(reader);
}

// A journal at block 18 with 100 blocks and its header behind them.
struct Journal {
  u32 last_flushed;
  u32 next_at;      // where the header says that the next transaction begins
  u32 transaction;  // that stands there
  bool has_desc = true;
};

Claim claim_with(Sim& sim, u16 state, const Journal& journal, u32 other_device = 0) {
  sim.log().clear();
  OnDevice image(sim, {.state = state});
  Device* device = image.disk.device;
  Bytes super = device->peek(128, 4096);
  put_le(super, 12, 18, 4);
  put_le(super, 16, other_device, 4);
  put_le(super, 20, 100, 4);
  device->poke(128, super);
  Bytes header(4096);
  put_le(header, 0, journal.last_flushed, 4);
  put_le(header, 4, journal.next_at, 4);
  device->poke(118 * 8, header);
  Bytes desc(4096);
  put_le(desc, 0, journal.transaction, 4);
  if (journal.has_desc) std::memcpy(desc.data() + 4096 - 12, "ReIsErLB", 8);
  const u32 at = journal.last_flushed != 0 && journal.next_at < 100 ? journal.next_at : 0;
  device->poke((18 + at) * 8, desc);
  return reiserfs_claim(image.bdev());
}

SIM_TEST(ReiserfsClaim, AJournalThatIsNotReplayedIsNobodys) {
  LoggedParts parts;
  EXPECT_EQ(claim_with(sim, 2, {.last_flushed = 77, .next_at = 30, .transaction = 78}),
            Claim::Nobodys);
  EXPECT_EQ(sim.log().count("has a journal that is not replayed: no reader claims it", 6), 1);
  EXPECT_EQ(claim_with(sim, 2, {.last_flushed = 0, .next_at = 0, .transaction = 1}),
            Claim::Nobodys);
  // After a crash it may still say that it is unmounted.
  EXPECT_EQ(claim_with(sim, 1, {.last_flushed = 77, .next_at = 30, .transaction = 78}),
            Claim::Nobodys);
  sim.log().clear();
  // What is flushed, and what an earlier round has left.
  EXPECT_EQ(claim_with(sim, 2, {.last_flushed = 77, .next_at = 30, .transaction = 12}),
            Claim::NotMine);
  EXPECT_EQ(
      claim_with(sim, 2, {.last_flushed = 77, .next_at = 30, .transaction = 78, .has_desc = false}),
      Claim::NotMine);
  EXPECT_EQ(claim_with(sim, 1, {.last_flushed = 77, .next_at = 30, .transaction = 12}),
            Claim::NotMine);
  EXPECT_FALSE(sim.log().contains("claims it"));
  // A journal on a device of its own.
  EXPECT_EQ(claim_with(sim, 2, {.last_flushed = 77, .next_at = 30, .transaction = 12}, 0x801),
            Claim::Nobodys);
  EXPECT_EQ(sim.log().count("has a journal that cannot be read: no reader claims it", 6), 1);
}

SIM_TEST(ReiserfsClaim, OtherDevicesAreNot) {
  LoggedParts parts;
  OpenDevice small(sim, {.name = "sda1", .bytes = 65536});
  EXPECT_EQ(reiserfs_claim(small.bdev), Claim::NotMine);
  OnDevice odd(sim, {.magic = "ReIsEr3Fs", .state = 2});
  EXPECT_EQ(reiserfs_claim(odd.bdev()), Claim::NotMine);
  EXPECT_TRUE(sim.log().lines().empty());
  odd.disk.device->fail_range(128, 1, Op::Read, -EIO);
  EXPECT_EQ(reiserfs_claim(odd.bdev()), Claim::Nobodys);
  EXPECT_EQ(sim.log().count("reiserfs_claim(): Failed to look for ReiserFS on hdd(8, ", 3), 1);
}

}  // namespace
}  // namespace snbf::sim
