#include "util/bdev.h"

#include <algorithm>

#include "parts_rig.h"

namespace snbf::sim {
namespace {

// Again and again from zero, at distances that no sector is a multiple of: each looks different.
Bytes counting(std::size_t bytes, u8 first = 0) {
  Bytes data(bytes);
  std::ranges::generate(data,
                        [n = std::size_t{first}]() mutable { return static_cast<u8>(n++ % 251); });
  return data;
}

SIM_TEST(OpenBlockDevice, AnswersNullOnAnyFailure) {
  LoggedParts parts;
  Device* disk = sim.add_device({.name = "sda1"});
  EXPECT_EQ(snbf_open_bdev(dev(77, 7), PLAT_MODE_READ, PLAT_OPEN_SHARED, nullptr), nullptr);
  plat_bdev* bdev = snbf_open_bdev(disk->number(), PLAT_MODE_READ, PLAT_OPEN_SHARED, nullptr);
  ASSERT_NE(bdev, nullptr);
  EXPECT_EQ(snbf_is_mounted(bdev), 0);
  sim.make_dir("/mnt");
  ASSERT_EQ(sim.mount(sim.add_fs("data", disk->number()), "/mnt"), 0);
  EXPECT_EQ(snbf_is_mounted(bdev), 1);
  ASSERT_EQ(sim.unmount(sim.fs("data")), 0);
  EXPECT_EQ(snbf_close_bdev(bdev, PLAT_OPEN_SHARED, PLAT_MODE_READ, nullptr), 0);
}

SIM_TEST(BlockRead, ReadsBlocksOneByOne) {
  LoggedParts parts;
  OpenDevice disk(sim, {.name = "sda1"});
  const Bytes contents = counting(3 * 1024, 9);
  disk.device->poke(10, contents);
  Bytes to(3 * 1024);
  ASSERT_EQ(snbf_bread(disk.bdev, to.data(), 1024, 5, 3), 0);
  EXPECT_EQ(to, contents);
  const auto& seen = disk.device->history();
  ASSERT_EQ(seen.size(), 3u);
  for (u64 n = 0; n < 3; ++n) {
    EXPECT_EQ(seen[n].sector, 10 + n * 2);
    EXPECT_EQ(seen[n].bytes, 1024u);
    if (n > 0) {
      EXPECT_GE(seen[n].sent_us, seen[n - 1].done_us);
    }
  }
}

SIM_TEST(BlockRead, BoundsTheBlockByThePage) {
  LoggedParts parts;
  OpenDevice disk(sim, {.name = "sda1"});
  Bytes to(8192);
  EXPECT_EQ(snbf_bread(disk.bdev, to.data(), 4096, 0, 1), 0);
  EXPECT_FALSE(sim.log().has_errors());
  for (int bytes : {4097, -512}) {
    sim.log().clear();
    EXPECT_EQ(snbf_bread(disk.bdev, to.data(), bytes, 0, 1), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_bread(): Block size cannot be larger than page size (4096)", 3),
              1);
  }
}

// Less than a block of the device is no request that a device can be sent.
SIM_TEST(BlockRead, ReadsWholeBlocksOfTheDevice) {
  LoggedParts parts;
  OpenDevice disk(sim, {.name = "sda1", .block_bytes = 4096});
  const Bytes contents = counting(4 * 4096, 7);
  disk.device->poke(0, contents);
  for (int bytes : {512, 1024, 2048, 4096}) {
    Bytes to(8192 + 1, 0xA5);
    const int count = 8192 / bytes;
    const s64 first = 4096 / bytes + (bytes < 4096 ? 1 : 0);
    const auto at = static_cast<long>(first * bytes);
    ASSERT_EQ(snbf_bread(disk.bdev, to.data(), bytes, first, count), 0);
    EXPECT_EQ(Bytes(to.begin(), to.end() - 1),
              Bytes(contents.begin() + at, contents.begin() + at + 8192));
    EXPECT_EQ(to.back(), 0xA5);
  }
  for (const auto& request : disk.device->history()) EXPECT_EQ(request.bytes, 4096u);
  // One that lies in two of them and is no multiple of either.
  u8 to[3000];
  EXPECT_EQ(snbf_bread(disk.bdev, to, sizeof(to), 1, 1), -EIO);
  EXPECT_EQ(sim.log().count("snbf_bread(): Failed to read 3000-byte block #1", 3), 1);
}

SIM_TEST(BlockRead, OfNothingSendsNothing) {
  LoggedParts parts;
  OpenDevice disk(sim, {.name = "sda1"});
  u8 to = 0;
  EXPECT_EQ(snbf_bread(disk.bdev, &to, 4096, 0, 0), 0);
  EXPECT_EQ(snbf_bread(disk.bdev, &to, 4096, 0, -1), 0);
  EXPECT_EQ(disk.device->counts().reads, 0u);
}

SIM_TEST(BlockRead, AFailedBlockLeavesThoseBeforeIt) {
  LoggedParts parts;
  OpenDevice disk(sim, {.name = "sda1"});
  disk.device->poke(0, counting(4096, 1));
  disk.device->fail_range(8, 8, Op::Read, -EIO);
  Bytes to(2 * 4096);
  EXPECT_EQ(snbf_bread(disk.bdev, to.data(), 4096, 0, 2), -EIO);
  EXPECT_EQ(sim.log().count("snbf_bread(): Failed to read 4096-byte block #1", 3), 1);
  EXPECT_EQ(Bytes(to.begin(), to.begin() + 4096), counting(4096, 1));
  EXPECT_EQ(to[4096], 0);
}

SIM_TEST(BlockRead, NeedsMemory) {
  LoggedParts parts;
  OpenDevice disk(sim, {.name = "sda1"});
  Bytes to(4096);
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    sim.log().clear();
                    const int rc = snbf_bread(disk.bdev, to.data(), 4096, 0, 1);
                    if (rc != 0) {
                      EXPECT_EQ(rc, -ENOMEM);
                      EXPECT_EQ(sim.log().count("snbf_bread(): Memory allocation failed.", 3), 1);
                    }
                  });
       ++nth) {
  }
  EXPECT_EQ(nth, 3);
}

SIM_TEST(BlockRead, ANullBufferStopsTheKernel) {
  LoggedParts parts;
  OpenDevice disk(sim, {.name = "sda1"});
  sim.expect_fatal("to != nullptr");
  snbf_bread(disk.bdev, nullptr, 4096, 0, 1);
}

}  // namespace
}  // namespace snbf::sim
