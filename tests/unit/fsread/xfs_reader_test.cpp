#include "fsread/xfs_reader.h"

#include "byte_image.h"
#include "xfs_image.h"

namespace snbf::sim {
namespace {

struct XfsOnDevice {
  XfsOnDevice(Sim& sim, const XfsImage& image, u64 device_bytes = 0)
      : disk(sim, {.name = "sd" + std::to_string(sim.random()),
                   .bytes = device_bytes != 0 ? device_bytes : image.device_bytes()}) {
    image.put_on(disk.device);
  }
  plat_bdev* bdev() const { return disk.bdev; }
  // Changes bytes in place.
  void patch(u64 at, u64 value, int width) {
    Bytes sector = disk.device->peek(at / 512, 512);
    put_be(sector, at % 512, value, width);
    disk.device->poke(at / 512, sector);
  }

  OpenDevice disk;
};

using Chunks = std::set<u64>;

// Chunks that one read calls free.
int free_chunks(plat_bdev* bdev, u64 first, u32 chunk_size, u32 count, Chunks* free) {
  XfsReader* reader = xfs_reader_init(bdev, nullptr);
  EXPECT_NE(reader, nullptr);
  Bytes bits((count + 7) / 8, 0xA5);
  const int rc = xfs_reader_read(reader, first, chunk_size, bits.data(), count);
  for (u8& byte : bits) byte = static_cast<u8>(~byte);
  *free = set_bits(bits, count);
  xfs_reader_destroy(reader);
  return rc;
}

Chunks range(u64 first, u64 last) {
  Chunks all;
  for (; first <= last; ++first) all.insert(first);
  return all;
}

Chunks operator+(Chunks a, const Chunks& b) {
  a.insert(b.begin(), b.end());
  return a;
}

// Many small extents: a tree of several levels. Extent n is 3 blocks at 100 + 10 n.
XfsImage deep_image() {
  XfsImage image;
  for (u32 n = 0; n < 200; ++n) image.free[0].push_back({100 + 10 * n, 3});
  return image;
}

SIM_TEST(XfsInit, AnswersTheBlockSizeAndSaysWhatItFound) {
  LoggedParts parts;
  XfsOnDevice image(sim, {.block_size = 1024,
                          .ag_lengths = {4096, 2000},
                          .free = {{{100, 50}}, {{200, 7}, {300, 8}}}});
  u32 block_size = 0;
  XfsReader* reader = xfs_reader_init(image.bdev(), &block_size);
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(block_size, 1024u);
  for (const char* line :
       {"xfs_reader_init(): Detected XFS on hdd(8, ", "   magic=0x58465342", "   blocksize=1024",
        "   sectsize=512", "   AG size=4096 blocks", "   AG count=2",
        "      AGF[0]: roots=(16, 5), levels=(1, 1), freeblks=50, length=4096",
        "      AGF[1]: roots=(16, 5), levels=(1, 1), freeblks=15, length=2000"}) {
    EXPECT_EQ(sim.log().count(line, 6), 1) << line;
  }
  EXPECT_FALSE(sim.log().has_errors());
  EXPECT_EQ(xfs_reader_destroy(reader), 0);
  EXPECT_EQ(xfs_reader_destroy(nullptr), 0);
}

SIM_TEST(XfsInit, AnotherFileSystemIsNoError) {
  LoggedParts parts;
  OpenDevice disk(sim, {.name = "sda1"});
  EXPECT_EQ(xfs_reader_init(disk.bdev, nullptr), nullptr);
  EXPECT_EQ(sim.log().count(") doesn't have XFS.", 6), 1);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(XfsInit, RefusesWhatCannotBe) {
  LoggedParts parts;
  struct Field {
    u64 at;
    u32 value;
  };
  for (Field field : {Field{4, 0}, Field{4, 4097}, Field{4, 256}, Field{4, 1u << 17}, Field{84, 0},
                      Field{88, 0}, Field{88, 0xFFFFFFFF}, Field{88, 10000}}) {
    sim.log().clear();
    XfsOnDevice image(sim, {});
    image.patch(field.at, field.value, 4);
    EXPECT_EQ(xfs_reader_init(image.bdev(), nullptr), nullptr);
    EXPECT_EQ(sim.log().count("xfs_reader_init(): Superblock of hdd(8, ", 3), 1);
  }
}

SIM_TEST(XfsInit, ChecksTheHeadersOfEachGroup) {
  LoggedParts parts;
  const XfsImage layout = {.ag_lengths = {4096, 4096}, .free = {{}, {}}};
  const u64 second = layout.ag_at(1);
  auto refuses = [&](XfsOnDevice& image, const char* line) {
    sim.log().clear();
    EXPECT_EQ(xfs_reader_init(image.bdev(), nullptr), nullptr);
    EXPECT_EQ(sim.log().count(line, 3), 1) << sim.log().dump();
  };
  {
    XfsOnDevice image(sim, layout);
    image.patch(second, 0x12345678, 4);
    refuses(image, "xfs_reader_init(): AG 1 of hdd(8, ");
    EXPECT_TRUE(
        sim.log().contains(") has incorrect SB magic number: 0x12345678 instead of 0x58465342."));
  }
  {
    XfsOnDevice image(sim, layout);
    image.patch(second + 512, 0x87654321, 4);
    refuses(image, "xfs_reader_init(): Incorrect AGF magic of AG 1 of hdd(8, ");
    EXPECT_TRUE(sim.log().contains("): 0x87654321 instead of 0x58414746"));
  }
  {
    XfsOnDevice image(sim, layout);
    image.patch(second + 512 + 12, 4097, 4);
    refuses(image, "xfs_reader_init(): AGF of AG 1 of hdd(8, ");
  }
  XfsOnDevice image(sim, layout);
  Device* device = image.disk.device;
  device->fail_range(0, 1, Op::Read, -EIO);
  refuses(image, "xfs_reader_init(): Failed to read Super Block of hdd(8, ");
  device->clear_failures();
  device->fail_range(second / 512, 1, Op::Read, -EIO);
  refuses(image, "xfs_reader_init(): Failed to read Super Block of AG 1 of hdd(8, ");
  device->clear_failures();
  device->fail_range(second / 512 + 1, 1, Op::Read, -EIO);
  refuses(image, "xfs_reader_init(): Failed to read AGF of AG 1 of hdd(8, ");
}

SIM_TEST(XfsInit, EveryAllocationMayFail) {
  LoggedParts parts;
  XfsOnDevice image(sim, {.block_size = 512});
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    sim.log().clear();
                    XfsReader* reader = xfs_reader_init(image.bdev(), nullptr);
                    if (sim.fault_reached(Fault::AnyAllocation)) {
                      EXPECT_EQ(reader, nullptr);
                      EXPECT_TRUE(sim.log().contains("(): Memory allocation failed"));
                    }
                    xfs_reader_destroy(reader);
                  });
       ++nth) {
  }
  EXPECT_GE(nth, 11);
}

SIM_TEST(XfsRead, AFreeChunkLiesInOneFreeExtent) {
  LoggedParts parts;
  XfsImage layout;
  // 10 and 6 blocks that touch each other; two whole chunks; one block too few; an odd place.
  layout.free[0] = {{64, 10}, {74, 6}, {128, 32}, {193, 15}, {400, 40}};
  XfsOnDevice image(sim, layout);
  Chunks free;
  EXPECT_EQ(free_chunks(image.bdev(), 0, 65536, 256, &free), 0);
  EXPECT_EQ(free, (Chunks{8, 9, 25, 26}));
  EXPECT_EQ(free_chunks(image.bdev(), 0, 4096, 4096, &free), 0);
  EXPECT_EQ(free, range(64, 79) + range(128, 159) + range(193, 207) + range(400, 439));
  EXPECT_EQ(free_chunks(image.bdev(), 9, 65536, 18, &free), 0);
  EXPECT_EQ(free, (Chunks{0, 16, 17}));
  EXPECT_EQ(free_chunks(image.bdev(), 0, 65536, 0, &free), 0);
}

SIM_TEST(XfsRead, DescendsATreeOfSeveralLevels) {
  LoggedParts parts;
  const XfsImage layout = deep_image();
  XfsOnDevice image(sim, layout);
  Chunks expected;
  for (u64 n = 0; n < 200; ++n) expected = expected + range(100 + 10 * n, 102 + 10 * n);
  Chunks free;
  EXPECT_EQ(free_chunks(image.bdev(), 0, 4096, 4096, &free), 0);
  EXPECT_EQ(free, expected);
  // From every place on, also one below the first key of all.
  for (u64 first = 0; first < 2200; first += 7) {
    EXPECT_EQ(free_chunks(image.bdev(), first, 4096, 11, &free), 0);
    Chunks there;
    for (u64 k = 0; k < 11; ++k) {
      if (expected.contains(first + k)) there.insert(k);
    }
    ASSERT_EQ(free, there) << "from " << first;
  }
}

SIM_TEST(XfsRead, FindsTheLeafOfABlock) {
  LoggedParts parts;
  const XfsImage layout = deep_image();
  XfsOnDevice image(sim, layout);
  XfsReader* reader = xfs_reader_init(image.bdev(), nullptr);
  ASSERT_NE(reader, nullptr);
  for (u32 target : {0u, 99u, 100u, 139u, 140u, 2090u, 4095u}) {
    image.disk.device->clear_history();
    EXPECT_EQ(xfs_find_leaf(reader, target, 0, layout.root_block(0)), 0);
    // Four records of 40 blocks a leaf.
    const u32 leaf = target < 100 ? 0 : std::min((target - 100) / 40, layout.leaf_count(0) - 1);
    EXPECT_EQ(image.disk.device->history().back().sector, layout.leaf_block(leaf) * 8);
    EXPECT_EQ(image.disk.device->history().size(), 5u);
  }
  // A tree of one leaf.
  image.disk.device->clear_history();
  EXPECT_EQ(xfs_find_leaf(reader, 500, 0, layout.leaf_block(10)), 0);
  EXPECT_EQ(image.disk.device->history().size(), 1u);
  xfs_reader_destroy(reader);
}

SIM_TEST(XfsRead, EachGroupHasItsTree) {
  LoggedParts parts;
  const XfsImage layout = {.ag_blocks = 1000,
                           .ag_lengths = {1000, 1000, 500},
                           .free = {{{100, 900}}, {}, {{0, 4}, {300, 200}}}};
  XfsOnDevice image(sim, layout, 64 << 20);
  Chunks free;
  EXPECT_EQ(free_chunks(image.bdev(), 0, 4096, 3100, &free), 0);
  // Up to the end of the last group that could be there: a short one ends with blocks in use.
  EXPECT_EQ(free, range(100, 999) + range(2000, 2003) + range(2300, 2499) + range(3000, 3099));
  // A chunk that crosses the end of a group is in use, whatever is free on both sides.
  EXPECT_EQ(free_chunks(image.bdev(), 0, 65536, 200, &free), 0);
  EXPECT_EQ(free, range(7, 61) + range(144, 155) + range(188, 199));
  EXPECT_EQ(free_chunks(image.bdev(), 187, 65536, 8, &free), 0);
  EXPECT_EQ(free, range(1, 7));
  EXPECT_EQ(free_chunks(image.bdev(), 0xFFFFFFFF, 1u << 31, 8, &free), 0);
  EXPECT_EQ(free, range(0, 7));
}

// The head of the next group is in use, whatever a record says of its own.
SIM_TEST(XfsRead, AFreeExtentEndsWithItsGroup) {
  LoggedParts parts;
  const XfsImage layout = {
      .ag_blocks = 1000, .ag_lengths = {1000, 1000}, .free = {{{900, 200}}, {}}};
  XfsOnDevice image(sim, layout);
  Chunks free;
  EXPECT_EQ(free_chunks(image.bdev(), 0, 65536, 125, &free), 0);
  EXPECT_EQ(free, range(57, 61));
}

SIM_TEST(XfsRead, SmallBlocks) {
  LoggedParts parts;
  const XfsImage layout = {
      .block_size = 512, .ag_blocks = 32768, .ag_lengths = {32768}, .free = {{{80, 17}, {104, 9}}}};
  XfsOnDevice image(sim, layout);
  Chunks free;
  EXPECT_EQ(free_chunks(image.bdev(), 0, 4096, 4096, &free), 0);
  EXPECT_EQ(free, (Chunks{10, 11, 13}));
}

SIM_TEST(XfsRead, EveryBlockOfATreeMayFail) {
  LoggedParts parts;
  const XfsImage layout = deep_image();
  XfsOnDevice image(sim, layout);
  Chunks free;
  const u32 root = layout.root_block(0);
  image.disk.device->fail_range(root * 8, 8, Op::Read, -EIO);
  EXPECT_EQ(free_chunks(image.bdev(), 0, 4096, 4096, &free), -EIO);
  EXPECT_EQ(sim.log().count("xfs_find_leaf(): Failed to read AGF node from block " +
                                std::to_string(root) + ": rc=-5",
                            3),
            1);
  image.disk.device->clear_failures();
  image.disk.device->fail_range(layout.leaf_block(1) * 8, 8, Op::Read, -EIO);
  EXPECT_EQ(free_chunks(image.bdev(), 0, 4096, 4096, &free), -EIO);
  EXPECT_EQ(sim.log().count("xfs_reader_read(): Failed to read AGF node from block 17: rc=-5", 3),
            1);
  image.disk.device->clear_failures();
  image.patch(u64{layout.leaf_block(1)} * 4096, 0xDEADBEEF, 4);
  EXPECT_EQ(free_chunks(image.bdev(), 0, 4096, 4096, &free), -EINVAL);
  EXPECT_EQ(sim.log().count("xfs_reader_read(): Invalid B+tree node block magic: 0xdeadbeef "
                            "instead of 0x41425442",
                            3),
            1);
  image.patch(u64{root} * 4096, 0x41423342, 4);  // of version 5
  EXPECT_EQ(free_chunks(image.bdev(), 0, 4096, 4096, &free), -EINVAL);
  EXPECT_EQ(sim.log().count("xfs_find_leaf(): Invalid B+tree node block magic: 0x41423342 "
                            "instead of 0x41425442",
                            3),
            1);
}

// Trees that lead round in circles or claim more than a block can hold.
SIM_TEST(XfsRead, DamagedTreesEndIt) {
  LoggedParts parts;
  const XfsImage layout = deep_image();
  const u64 root = u64{layout.root_block(0)} * 4096;
  const u64 leaf = u64{layout.leaf_block(2)} * 4096;
  struct Damage {
    u64 at;
    u64 value;
    int width;
    const char* line;
  };
  const u64 children = 16 + 340 * 8;
  for (const Damage& damage :
       {Damage{root + children, layout.root_block(0), 4, "xfs_find_leaf(): B+tree node block "},
        Damage{root + 4, 16, 2, "xfs_find_leaf(): B+tree node block "},
        Damage{root + 6, 341, 2, " has 341 records, more than fit"},
        Damage{leaf + 6, 511, 2, " has 511 records, more than fit"},
        Damage{leaf + 12, layout.leaf_block(2), 4,
               "xfs_reader_read(): B+tree node block 18 is out "},
        Damage{leaf + 12, layout.leaf_block(0), 4,
               "xfs_reader_read(): B+tree node block 16 is out "},
        Damage{leaf + 12, layout.root_block(0), 4, " is out of order"},
        Damage{leaf + 6, 0, 2, "xfs_reader_read(): B+tree node block 18 is out of order"},
        Damage{leaf + 12, 0xFFFFFFFE, 4, "Failed to read AGF node from block 4294967294"}}) {
    sim.log().clear();
    XfsOnDevice image(sim, layout);
    image.patch(damage.at, damage.value, damage.width);
    Chunks free;
    EXPECT_LT(free_chunks(image.bdev(), 0, 4096, 4096, &free), 0) << damage.line;
    EXPECT_EQ(sim.log().count(damage.line, 3), 1) << sim.log().dump();
  }
}

// A leaf whose records fall may follow itself: its first always begins behind its last.
SIM_TEST(XfsRead, ARingOfLeavesWhoseRecordsFallEndsIt) {
  LoggedParts parts;
  XfsImage layout;
  layout.free[0] = {{100, 3}, {50, 3}};
  XfsOnDevice image(sim, layout);
  const u64 leaf = u64{layout.leaf_block(0)} * 4096;
  image.patch(leaf + 12, layout.leaf_block(0), 4);
  // A reader that goes round and round has its device fail in the end.
  sim.interrupt([disk = image.disk.device] { disk->fail_range(0, 4096 * 8, Op::Read, -EIO); },
                1'000'000);
  Chunks free;
  EXPECT_EQ(free_chunks(image.bdev(), 0, 4096, 4096, &free), -EINVAL);
  EXPECT_EQ(sim.log().count("xfs_find_leaf(): B+tree node block 16 is out of order", 3), 1)
      << sim.log().dump();
}

SIM_TEST(XfsRead, RefusesChunksThatItCannotAnswerFor) {
  LoggedParts parts;
  XfsOnDevice image(sim, {});
  XfsReader* reader = xfs_reader_init(image.bdev(), nullptr);
  u8 bits = 0x5A;
  EXPECT_EQ(xfs_reader_read(nullptr, 0, 4096, &bits, 8), -EINVAL);
  EXPECT_EQ(xfs_reader_read(reader, 0, 1, &bits, 8), -EINVAL);
  EXPECT_EQ(xfs_reader_read(reader, 0, 2048, &bits, 8), -EINVAL);
  for (const char* line : {"Invalid reader's context NULL.", "Chunk size (1) must be a power of 2.",
                           "Chunk size (2048) is smaller than FS block size (4096)."}) {
    EXPECT_EQ(sim.log().count(std::string("xfs_reader_read(): ") + line, 3), 1);
  }
  EXPECT_EQ(bits, 0x5A);
  xfs_reader_destroy(reader);
}

}  // namespace
}  // namespace snbf::sim
