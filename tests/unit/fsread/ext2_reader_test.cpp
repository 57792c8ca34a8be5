#include "fsread/ext2_reader.h"

#include "byte_image.h"

namespace snbf::sim {
namespace {

using Chunks = std::set<u64>;

// One read through a reader of its own.
int read_chunks(plat_bdev* bdev, u64 first, u32 chunk_size, u32 count, Chunks* used) {
  Ext2Reader* reader = ext2_reader_init(bdev, nullptr);
  EXPECT_NE(reader, nullptr);
  Bytes bits((count + 7) / 8, 0xA5);
  const int rc = ext2_reader_read(reader, first, chunk_size, bits.data(), count);
  *used = set_bits(bits, bits.size() * 8);
  ext2_reader_destroy(reader);
  return rc;
}

SIM_TEST(Ext2Init, AnswersTheBlockSizeAndSaysWhatItFound) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{.block_size = 2048, .first_data_block = 0});
  u32 block_size = 0;
  Ext2Reader* reader = ext2_reader_init(image.bdev(), &block_size);
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(block_size, 2048u);
  for (const char* line :
       {"ext2_reader_init(): Detected ext2/ext3 FS on hdd(8, ", "   magic=0xef53",
        "   block_size=2048", "   blocks_count=8193 (16MB)", "   blocks_per_group=16384",
        "   group_desc_count=1", "   desc_blocks=1"}) {
    EXPECT_EQ(sim.log().count(line, 6), 1) << line;
  }
  EXPECT_FALSE(sim.log().has_errors());
  EXPECT_EQ(ext2_reader_destroy(reader), 0);
  EXPECT_EQ(ext2_reader_destroy(nullptr), 0);
}

SIM_TEST(Ext2Init, AnotherFileSystemIsNoError) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{.magic = 0xEF54});
  u32 block_size = 77;
  EXPECT_EQ(ext2_reader_init(image.bdev(), &block_size), nullptr);
  EXPECT_EQ(block_size, 77u);
  EXPECT_EQ(sim.log().count(") doesn't have ext2/ext3 FS.", 6), 1);
  EXPECT_FALSE(sim.log().has_errors());
}

std::string any_name(Sim& sim) { return "sd" + std::to_string(sim.random()); }

void expect_refused(Sim& sim, const Bytes& bytes, const char* line) {
  sim.log().clear();
  ImageOnDevice image(sim, bytes, 16 << 20, any_name(sim));
  EXPECT_EQ(ext2_reader_init(image.bdev(), nullptr), nullptr);
  EXPECT_EQ(sim.log().count(line, 3), 1) << line;
}

SIM_TEST(Ext2Init, RefusesWhatCannotBe) {
  LoggedParts parts;
  const char* corrupt = "ext2_reader_init(): Superblock of hdd(8, ";
  struct Field {
    u64 at;
    u64 value;
  };
  for (Field field : {Field{32, 0}, Field{40, 0}, Field{4, 0}, Field{24, 7}, Field{24, 0xFFFFFFFF},
                      Field{20, 8193}, Field{20, 0xFFFFFFFF}}) {
    Bytes bytes = Ext2Image{}.bytes();
    put_le(bytes, 1024 + field.at, field.value, 4);
    expect_refused(sim, bytes, corrupt);
    EXPECT_TRUE(sim.log().contains(") is corrupt."));
  }
  expect_refused(sim, Ext2Image{.incompat = 0x10}.bytes(),
                 "ext2_reader_init(): Sorry, we don't support ext2/ext3 with meta block groups.");
}

// Counts as large as the fields hold, on a device that warrants nothing of the kind.
SIM_TEST(Ext2Init, HugeCountsTakeNoMemory) {
  LoggedParts parts;
  struct Counts {
    u32 blocks, per_group;
  };
  for (Counts counts : {Counts{0xFFFFFFFF, 1}, Counts{0xFFFFFFFF, 8}, Counts{0xFFFFFFFF, 8192},
                        Counts{0xFFFFFFFF, 0xFFFFFFFF}, Counts{8192, 1}}) {
    Bytes bytes = Ext2Image{}.bytes();
    put_le(bytes, 1024 + 4, counts.blocks, 4);
    put_le(bytes, 1024 + 32, counts.per_group, 4);
    sim.log().clear();
    ImageOnDevice image(sim, bytes, 8193 << 10, any_name(sim));
    Ext2Reader* reader = ext2_reader_init(image.bdev(), nullptr);
    const bool is_one_group = counts.per_group == 0xFFFFFFFF;
    EXPECT_EQ(reader != nullptr, is_one_group) << counts.blocks << " by " << counts.per_group;
    EXPECT_EQ(sim.log().errors(), is_one_group ? 0 : 1) << sim.log().dump();
    EXPECT_FALSE(sim.log().contains("Memory allocation failed"));
    EXPECT_LE(image.disk.device->counts().reads, 3u);
    ext2_reader_destroy(reader);
  }
}

SIM_TEST(Ext2Init, EveryReadMayFail) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{});
  image.disk.device->fail_range(2, 2, Op::Read, -EIO);
  EXPECT_EQ(ext2_reader_init(image.bdev(), nullptr), nullptr);
  EXPECT_EQ(sim.log().count("ext2_reader_init(): Failed to read Super Block of hdd(8, ", 3), 1);
  EXPECT_TRUE(sim.log().contains("): rc=-5"));
  image.disk.device->clear_failures();
  image.disk.device->fail_range(4, 2, Op::Read, -EIO);
  EXPECT_EQ(ext2_reader_init(image.bdev(), nullptr), nullptr);
  EXPECT_EQ(
      sim.log().count("ext2_reader_init(): Failed to read Block Group Descriptors of hdd(8, ", 3),
      1);
}

SIM_TEST(Ext2Init, EveryAllocationMayFail) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{});
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    sim.log().clear();
                    Ext2Reader* reader = ext2_reader_init(image.bdev(), nullptr);
                    if (sim.fault_reached(Fault::AnyAllocation)) {
                      EXPECT_EQ(reader, nullptr);
                      EXPECT_TRUE(sim.log().contains("(): Memory allocation failed."));
                    }
                    ext2_reader_destroy(reader);
                  });
       ++nth) {
  }
  EXPECT_GE(nth, 9);
}

SIM_TEST(Ext2Read, RefusesChunksThatItCannotAnswerFor) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{.block_size = 4096, .first_data_block = 0});
  Ext2Reader* reader = ext2_reader_init(image.bdev(), nullptr);
  ASSERT_NE(reader, nullptr);
  u8 bits = 0x5A;
  EXPECT_EQ(ext2_reader_read(nullptr, 0, 4096, &bits, 8), -EINVAL);
  EXPECT_EQ(sim.log().count("ext2_reader_read(): Invalid reader's context NULL.", 3), 1);
  for (u32 chunk_size : {0u, 1u, 3u, 4097u, 0xFFFFFFFFu}) {
    sim.log().clear();
    EXPECT_EQ(ext2_reader_read(reader, 0, chunk_size, &bits, 8), -EINVAL);
    const std::string line = "ext2_reader_read(): Chunk size (" +
                             std::to_string(static_cast<int>(chunk_size)) +
                             ") must be a power of 2.";
    EXPECT_EQ(sim.log().count(line, 3), 1);
  }
  EXPECT_EQ(ext2_reader_read(reader, 0, 2048, &bits, 8), -EINVAL);
  EXPECT_EQ(sim.log().count(
                "ext2_reader_read(): Chunk size (2048) is smaller than FS block size (4096).", 3),
            1);
  EXPECT_EQ(bits, 0x5A);
  ext2_reader_destroy(reader);
}

SIM_TEST(Ext2Read, TheFrontIsUsedWhateverTheBitmapSays) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{});
  Chunks used;
  EXPECT_EQ(read_chunks(image.bdev(), 0, 1024, 64, &used), 0);
  EXPECT_EQ(used, (Chunks{0, 1}));
  EXPECT_EQ(read_chunks(image.bdev(), 0, 2048, 64, &used), 0);
  EXPECT_EQ(used, (Chunks{0}));
  EXPECT_EQ(read_chunks(image.bdev(), 1, 1024, 64, &used), 0);
  EXPECT_EQ(used, (Chunks{0}));
  EXPECT_EQ(read_chunks(image.bdev(), 2, 1024, 64, &used), 0);
  EXPECT_EQ(used, Chunks{});
}

SIM_TEST(Ext2Read, OneUsedBlockMakesItsChunkUsed) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{.used = {1, 40, 47, 48, 127, 8192}});
  Chunks used;
  EXPECT_EQ(read_chunks(image.bdev(), 0, 8192, 1025, &used), 0);
  EXPECT_EQ(used, (Chunks{0, 5, 6, 15, 1024}));
  EXPECT_EQ(read_chunks(image.bdev(), 0, 1024, 8200, &used), 0);
  EXPECT_EQ(used, (Chunks{0, 1, 40, 47, 48, 127, 8192}));
  EXPECT_EQ(read_chunks(image.bdev(), 6, 8192, 9, &used), 0);
  EXPECT_EQ(used, (Chunks{0}));
}

SIM_TEST(Ext2Read, AChunkMaySpanGroups) {
  LoggedParts parts;
  // Groups of 8192 blocks from block 1 on: block 8193 begins the second one, in the middle of a
  // chunk.
  const Ext2Image layout = {.blocks_count = 3 * 8192 + 100,
                            .used = {8193, 2 * 8192 + 1, 2 * 8192 + 9}};
  ImageOnDevice image(sim, layout);
  Chunks used;
  EXPECT_EQ(read_chunks(image.bdev(), 0, 4096, 6169, &used), 0);
  EXPECT_EQ(used, (Chunks{0, 8192 / 4, 4096, 4098}));
  // A used block in a chunk that reaches over whole groups: they are stepped over.
  EXPECT_EQ(read_chunks(image.bdev(), 0, 16u << 20, 2, &used), 0);
  EXPECT_EQ(used, (Chunks{0, 1}));
}

SIM_TEST(Ext2Read, AGroupThatDisagreesIsUsedAsAWhole) {
  LoggedParts parts;
  const Ext2Image layout = {.blocks_count = 3 * 8192 + 1, .lying_groups = {1}};
  ImageOnDevice image(sim, layout);
  Chunks used;
  EXPECT_EQ(read_chunks(image.bdev(), 0, 1u << 20, 25, &used), 0);
  EXPECT_EQ(used, (Chunks{0, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
  EXPECT_EQ(sim.log().count("ext2_reader_read(): Number of free blocks (8193) in block group 1 is "
                            "inconsistent with the bitmap (8192).",
                            3),
            1);
}

SIM_TEST(Ext2Read, EndsWithTheFileSystem) {
  LoggedParts parts;
  const Ext2Image layout = {.blocks_count = 5000, .used = {4999}};
  ImageOnDevice image(sim, layout.bytes(), 64 << 20);
  Chunks used;
  EXPECT_EQ(read_chunks(image.bdev(), 4990, 1024, 64, &used), 0);
  EXPECT_EQ(used, (Chunks{9}));
  EXPECT_EQ(read_chunks(image.bdev(), 1 << 20, 1024, 64, &used), 0);
  EXPECT_EQ(used, Chunks{});
  EXPECT_EQ(read_chunks(image.bdev(), 0xFFFFFFFF, 1u << 31, 64, &used), 0);
  EXPECT_EQ(used, Chunks{});
}

SIM_TEST(Ext2Read, ABitmapThatCannotBeReadEndsIt) {
  LoggedParts parts;
  const Ext2Image layout = {.blocks_count = 3 * 8192};
  ImageOnDevice image(sim, layout);
  Ext2Reader* reader = ext2_reader_init(image.bdev(), nullptr);
  ASSERT_NE(reader, nullptr);
  Bytes bits(4096);
  image.disk.device->fail_range(layout.bitmap_block(1) * 2, 2, Op::Read, -EIO);
  EXPECT_EQ(ext2_reader_read(reader, 0, 1024, bits.data(), 24576), -EIO);
  EXPECT_EQ(
      sim.log().count("ext2_reader_read(): Failed to read Data Bitmap of Block Group 1: rc=-5", 3),
      1);
  // What was in the cache before is not taken for that group's.
  image.disk.device->clear_failures();
  EXPECT_EQ(ext2_reader_read(reader, 0, 1024, bits.data(), 24576), 0);
  ext2_reader_destroy(reader);
}

SIM_TEST(Ext2Read, ReadsEachBitmapOnce) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{.blocks_count = 3 * 8192 + 1});
  Ext2Reader* reader = ext2_reader_init(image.bdev(), nullptr);
  ASSERT_NE(reader, nullptr);
  image.disk.device->clear_history();
  Bytes bits(512);
  for (u64 first = 0; first < 24577; first += 1024) {
    EXPECT_EQ(ext2_reader_read(reader, first, 1024, bits.data(), 1024), 0);
  }
  EXPECT_EQ(image.disk.device->history().size(), 3u);
  ext2_reader_destroy(reader);
}

SIM_TEST(Ext2Read, ABitmapBehindTheDeviceEndsIt) {
  LoggedParts parts;
  Bytes bytes = Ext2Image{}.bytes();
  put_le(bytes, 2048, 0xFFFFFFFF, 4);
  ImageOnDevice image(sim, bytes, 16 << 20);
  Chunks used;
  EXPECT_EQ(read_chunks(image.bdev(), 0, 1024, 64, &used), -EIO);
}

}  // namespace
}  // namespace snbf::sim
