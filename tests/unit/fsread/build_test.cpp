// The data-block map as it is built, looked up and exported.
#include "byte_image.h"
#include "fsread/blkbmp.h"
#include "fsread/selftest.h"

namespace snbf::sim {
namespace {

struct Map : snbf_blkbmp {
  Map() { snbf_blkbmp_init(this); }
  ~Map() { snbf_blkbmp_destroy(this); }
};

bool is_used(const Map& map, u64 chunk) { return snbf_blkbmp_is_used(&map, chunk) != 0; }

// Every chunk but those that hold only free blocks.
std::set<u64> chunks_of(const Ext2Image& image, u32 chunk_size) {
  const u64 blocks = chunk_size / image.block_size;
  std::set<u64> chunks;
  for (u64 block = 0; block <= image.first_data_block; ++block) chunks.insert(block / blocks);
  for (u64 block : image.used) chunks.insert(block / blocks);
  return chunks;
}

SIM_TEST(BuildMap, SaysWhichChunksHoldUsedBlocks) {
  LoggedParts parts;
  Ext2Image layout = {.blocks_count = 70001};
  for (int n = 0; n < 300; ++n) layout.used.insert(sim.random(layout.blocks_count));
  for (u64 n = 9000; n < 30000; ++n) layout.used.insert(n);
  ImageOnDevice image(sim, layout);
  for (u32 chunk_size : {1024u, 4096u, 65536u, 1u << 20, 128u << 20, 1u << 31}) {
    Map map;
    ASSERT_EQ(snbf_blkbmp_read(&map, image.bdev(), chunk_size), 0);
    const u64 chunks = (layout.device_bytes() + chunk_size - 1) / chunk_size;
    EXPECT_EQ(static_cast<u64>(map.chunks), chunks);
    EXPECT_EQ(map.frag_cnt, 1);
    const std::set<u64> used = chunks_of(layout, chunk_size);
    for (u64 chunk = 0; chunk < chunks; ++chunk) {
      ASSERT_EQ(is_used(map, chunk), used.contains(chunk)) << chunk << " of " << chunk_size;
    }
    EXPECT_TRUE(is_used(map, chunks));
  }
  EXPECT_FALSE(sim.log().has_errors());
}

// A small file system on a device that numbers of 31 bits cannot count.
SIM_TEST(BuildMap, RefusesMoreChunksThanItCanCount) {
  LoggedParts parts;
  const Ext2Image layout = {};
  const ImageOnDevice image(sim, layout.bytes(), u64{1} << 42);
  Map map;
  EXPECT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1024), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_blkbmp_read(): Too many chunks: 4294967296", 3), 1);
  EXPECT_EQ(map.valid, 0);
  EXPECT_EQ(snbf_blkbmp_test(image.bdev()), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_blkbmp_test(): Too many blocks: 4294967296", 3), 1);
}

SIM_TEST_SEEDS(BuildMap, AFreeFragmentTakesAKilobyte, 1) {
  LoggedParts parts;
  const Ext2Image layout = {.blocks_count = 3u << 20, .used = {(2u << 20) + 77}};
  ImageOnDevice image(sim, layout);
  Map map;
  ASSERT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1024), 0);
  ASSERT_EQ(map.frag_cnt, 3);
  EXPECT_EQ(sim.log().count("Block Bitmap Fragment: 131072B => 1024B (256 x 512) (100%)"), 1);
  EXPECT_EQ(sim.log().count("256 x 512 (131072 bytes) will take 1024 bytes"), 1);
  EXPECT_EQ(map.frags[1].piece_cnt, 256);
  EXPECT_EQ(map.frags[1].piece_size, 512);
  EXPECT_EQ(map.frags[1].piece_shift, 12);
  EXPECT_EQ(map.frags[1].bit_mask, 4095);
  EXPECT_EQ(map.frags[1].slot_shift, 9);
  EXPECT_TRUE(is_used(map, 1));
  EXPECT_FALSE(is_used(map, 2));
  EXPECT_FALSE(is_used(map, (1u << 20)));
  EXPECT_FALSE(is_used(map, (2u << 20) + 76));
  EXPECT_TRUE(is_used(map, (2u << 20) + 77));
  EXPECT_FALSE(is_used(map, (2u << 20) + 78));
  EXPECT_FALSE(is_used(map, (3u << 20) - 1));
}

SIM_TEST(BuildMap, AFragmentOfAFewChunksIsOnePiece) {
  LoggedParts parts;
  const Ext2Image layout = {.blocks_count = 8192};
  ImageOnDevice image(sim, layout);
  for (u32 shift : {19, 20, 23}) {  // 16, 8 and 1 chunks
    Map map;
    ASSERT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1u << shift), 0);
    EXPECT_EQ(map.frags[0].piece_cnt, 1);
    EXPECT_EQ(map.frags[0].piece_size, 4);
    EXPECT_EQ(is_used(map, 0), true);
    for (int chunk = 1; chunk < map.chunks; ++chunk) EXPECT_FALSE(is_used(map, chunk));
  }
  EXPECT_EQ(sim.log().count(" will take "), 0);
  Map map;
  ASSERT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1u << 18), 0);  // 32 chunks
  EXPECT_EQ(sim.log().count("1 x 4 (4 bytes) will take 6 bytes"), 1);
}

SIM_TEST(BuildMap, TheEndOfALastFragmentIsFilledUp) {
  LoggedParts parts;
  const Ext2Image layout = {.blocks_count = 5 * 8192 + 8192 / 2};
  ImageOnDevice image(sim, layout);
  Map map;
  ASSERT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1024), 0);
  const snbf_blkbmp_frag& frag = map.frags[0];
  u64 ones = 0;
  for (int n = 0; n < frag.piece_cnt; ++n) {
    const u8* piece = frag.slots + (u64{frag.index[n]} << frag.slot_shift);
    for (int at = 0; at < frag.piece_size; ++at) {
      if (n * frag.piece_size + at < 45056 / 8) continue;
      ASSERT_EQ(piece[at], 0xFF);
      ++ones;
    }
  }
  EXPECT_GT(ones, 0u);
}

SIM_TEST(BuildMap, AnUnknownFileSystemDisablesIt) {
  LoggedParts parts;
  OpenDevice disk(sim, {.name = "sda1"});
  Map map;
  EXPECT_EQ(snbf_blkbmp_read(&map, disk.bdev, 4096), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_blkbmp_read(): Cannot recognize file system on hdd(8, ", 6), 1);
  EXPECT_TRUE(sim.log().contains("). Datablocks will be disabled"));
  EXPECT_FALSE(sim.log().has_errors());
  EXPECT_TRUE(is_used(map, 0));
  Bytes bits(100, 0);
  EXPECT_EQ(snbf_blkbmp_export(&map, 16, bits.data(), 100), 0);
  EXPECT_EQ(bits, Bytes(100, 0xFF));
  EXPECT_EQ(snbf_blkbmp_export(&map, 16, nullptr, 100), -EINVAL);
}

SIM_TEST(BuildMap, ChunksAreAPowerOfTwo) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{});
  for (u32 chunk_size : {0u, 1u, 3u, 4095u, 0x80000001u}) {
    sim.log().clear();
    Map map;
    EXPECT_EQ(snbf_blkbmp_read(&map, image.bdev(), chunk_size), -EINVAL);
    EXPECT_EQ(sim.log().errors(), 1);
    EXPECT_EQ(
        sim.log().count("snbf_blkbmp_read(): Chunk size (" +
                            std::to_string(static_cast<int>(chunk_size)) + ") must be a power of 2",
                        3),
        1);
    EXPECT_TRUE(is_used(map, 0));
  }
  Map map;
  EXPECT_EQ(snbf_blkbmp_read(&map, image.bdev(), 512), -EINVAL);
  EXPECT_TRUE(sim.log().contains("ext2_reader_read(): Chunk size (512) is smaller"));
}

SIM_TEST(BuildMap, AFailureLeavesItInvalid) {
  LoggedParts parts;
  const Ext2Image layout = {.blocks_count = (2u << 20) + 100};
  ImageOnDevice image(sim, layout);
  // A bitmap of the second fragment.
  image.disk.device->fail_range(layout.bitmap_block(200) * 2, 2, Op::Read, -EIO);
  Map map;
  EXPECT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1024), -EIO);
  EXPECT_EQ(map.valid, 0);
  EXPECT_TRUE(is_used(map, 5000));
  EXPECT_NE(map.frags[0].slots, nullptr);
  EXPECT_EQ(snbf_blkbmp_destroy(&map), 0);
  EXPECT_EQ(map.frags, nullptr);
  EXPECT_EQ(map.chunks, 0);
}

SIM_TEST_SEEDS(BuildMap, EveryAllocationMayFail, 1) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{});
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    sim.log().clear();
                    Map map;
                    const int rc = snbf_blkbmp_read(&map, image.bdev(), 4096);
                    EXPECT_EQ(rc == 0, !is_used(map, 1000));
                    EXPECT_EQ(rc == 0, !sim.fault_reached(Fault::AnyAllocation));
                    if (rc != 0) {
                      EXPECT_TRUE(sim.log().contains("(): Memory allocation failed") ||
                                  sim.log().contains("Failed to read Super Block"));
                      EXPECT_TRUE(rc == -ENOMEM || sim.log().contains("will be disabled"));
                    }
                  });
       ++nth) {
  }
  EXPECT_GE(nth, 15);
}

// The map of a snap that has been started already is built beside the request path.
SIM_TEST_SEEDS(BuildMap, IsLookedUpWhileItIsBuilt, 40) {
  LoggedParts parts(1);
  ImageOnDevice image(sim, Ext2Image{.blocks_count = 30000, .used = {20000}});
  Map map;
  bool is_built = false;
  u64 unknown = 0;
  sim.spawn("requests", [&] {
    while (!is_built) {
      const bool is_known = map.valid != 0;
      EXPECT_TRUE(is_used(map, 20000));
      if (is_used(map, 15000)) {
        EXPECT_FALSE(is_known);
        ++unknown;
      }
      sim.sleep_us(37);
    }
    EXPECT_FALSE(is_used(map, 15000));
  });
  EXPECT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1024), 0);
  is_built = true;
  sim.join_all();
  EXPECT_GT(unknown, 0u);
}

SIM_TEST(ExportMap, ReducesIt) {
  LoggedParts parts;
  const Ext2Image layout = {.blocks_count = 1001, .used = {1, 100, 555, 1000}};
  ImageOnDevice image(sim, layout);
  Map map;
  ASSERT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1024), 0);
  for (u64 factor : {1u, 2u, 16u, 1000u, 1001u, 1002u, 1u << 30}) {
    const u64 bits = (1001 + factor - 1) / factor;
    const int bytes = static_cast<int>((bits + 7) / 8);
    Bytes out(static_cast<u64>(bytes) + 1, 0xA5);
    ASSERT_EQ(snbf_blkbmp_export(&map, static_cast<u32>(factor), out.data(), bytes), 0);
    EXPECT_EQ(out.back(), 0xA5);
    std::set<u64> expected;
    for (u64 chunk : {0, 1, 100, 555, 1000}) expected.insert(chunk / factor);
    EXPECT_EQ(set_bits(out, static_cast<u64>(bytes) * 8), expected) << factor;
    if (bytes == 1) continue;
    sim.log().clear();
    EXPECT_EQ(snbf_blkbmp_export(&map, static_cast<u32>(factor), out.data(), bytes - 1), -EINVAL);
    EXPECT_EQ(
        sim.log().count("snbf_blkbmp_export(): Insufficient buffer size passed as input: "
                        "should be " +
                            std::to_string(bytes) + " instead of " + std::to_string(bytes - 1),
                        3),
        1);
  }
  EXPECT_EQ(snbf_blkbmp_export(&map, 1, nullptr, 4096), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_blkbmp_export(): NULL buffer passed as input", 3), 1);
}

TEST(Slots, ZerosComeFirstThenOnesThenTheRest) {
  run_sim_body(1, [](Sim&) {
    snbf_blkbmp_frag frag = {};
    Bytes bitmap(32, 0xFF);
    std::fill(bitmap.begin() + 8, bitmap.begin() + 16, 0);
    bitmap[19] = 0x7F;
    bitmap[24] = 0;
    EXPECT_EQ(create_sa(&frag, 8, 4, bitmap.data(), 1), 4 * 4 + 2 * 8);
    EXPECT_EQ(frag.index, nullptr);
    EXPECT_EQ(create_sa(&frag, 8, 4, bitmap.data(), 0), 4 * 4 + 2 * 8);
    EXPECT_EQ(std::vector<u16>(frag.index, frag.index + 8),
              (std::vector<u16>{1, 1, 0, 0, 2, 1, 3, 1}));
    EXPECT_EQ(Bytes(frag.slots, frag.slots + 16),
              (Bytes{0, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 127, 0, 255, 255, 255}));
    snbf_plat_virt_free(frag.index);
    snbf_plat_virt_free(frag.slots);
    // Without zeros, ones are slot 0.
    EXPECT_EQ(create_sa(&frag, 1, 8, bitmap.data(), 0), 8 + 2);
    EXPECT_EQ(frag.index[0], 0);
    snbf_plat_virt_free(frag.index);
    snbf_plat_virt_free(frag.slots);
  });
}

}  // namespace
}  // namespace snbf::sim
