// kcowd: copies once, in groups, data before bit before write; and what it does when a copy fails.
#include "snap_bench.h"

namespace snbf::sim {
namespace {

std::string cowing(u64 chunks, u64 pages, u32 minor) {
  return "COWing " + std::to_string(chunks) + " chunks (" + std::to_string(pages) +
         " pages), snap_minor=" + std::to_string(minor) + ", queue_cnt=";
}

SIM_TEST(CowThread, SaysWhatItHasAtItsStart) {
  SnapBench bench(sim);
  bench.add_started(7);
  sim.sleep_us(1000);
  EXPECT_EQ(sim.log().count("COW will be done in groups of 4194304 bytes"), 1);
  EXPECT_EQ(sim.log().count("Preallocated 1024 pages and 1024 bio for 1024 chunks"), 1);
  EXPECT_EQ(sim.log().count("snbf_cowthread_start(): Successfully started COW thread kcowd. pid="),
            1);
  bench.add_started(8);
  EXPECT_EQ(sim.log().count("Successfully started COW thread"), 1);
}

SIM_TEST(CowThread, StoresAChunkWhereItWasAndSetsItsBit) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(0, 0x10), 0);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  ASSERT_EQ(bench.write(17, 0x17), 0);
  bench.add_started(7, 8192);
  sim.log().clear();
  ASSERT_EQ(bench.write(17, 0x99), 0);
  EXPECT_EQ(sim.log().count(cowing(1, 2, 7)), 1);
  Bytes data = bench.file(bench.data_file(7));
  Bytes expected(data.size());
  std::fill_n(expected.begin() + 17 * 4096, 4096, u8{0x17});
  EXPECT_EQ(data, expected);
  Bytes bits(16);
  bits[1] = 0x01;  // chunk 8
  EXPECT_EQ(bench.file(bench.bmp_file(7)), bits);
  // Once for each snap.
  ASSERT_EQ(bench.write(16, 0x99), 0);
  ASSERT_EQ(bench.write(17, 0x98), 0);
  EXPECT_EQ(sim.log().count("COWing"), 1);
  EXPECT_EQ(bench.read(7, 17), 0x17);
  EXPECT_EQ(bench.read(7, 16), 0);
  EXPECT_EQ(bench.read(kOrigin, 17), 0x98);
}

SIM_TEST(CowThread, OnlyTheNewestSnapGetsTheCopyAndTheOlderReadIt) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  bench.add_started(8);
  ASSERT_EQ(bench.write(1, 0x22), 0);
  EXPECT_TRUE(sim.log().contains(cowing(1, 1, 8)));
  EXPECT_FALSE(sim.log().contains("snap_minor=7, queue_cnt"));
  bench.add_started(9);
  ASSERT_EQ(bench.write(1, 0x33), 0);
  EXPECT_EQ(bench.read(7, 1), 0x11);
  EXPECT_EQ(bench.read(8, 1), 0x11);
  EXPECT_EQ(bench.read(9, 1), 0x22);
  EXPECT_EQ(bench.read(kOrigin, 1), 0x33);
}

// Data, bit, write: each is durable, or sent, when the next begins.
SIM_TEST(CowThread, DataBeforeBitBeforeWrite) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  ASSERT_EQ(sim.sync_all(), 0);
  bench.disk->clear_history();
  bench.store_disk->clear_history();
  ASSERT_EQ(bench.write(1, 0x99), 0);

  u64 landed = 0;
  for (const Device::Seen& seen : bench.disk->history()) {
    if (seen.op == Op::Write && seen.sector == 8) landed = seen.sent_us;
  }
  ASSERT_NE(landed, 0u);
  // Two commits or flushes of the store at least end before the write is sent: the data's, then the
  // bitmap's.
  int syncs = 0;
  for (const Device::Seen& seen : bench.store_disk->history()) {
    if (seen.preflush && seen.completed && seen.done_us <= landed) ++syncs;
  }
  EXPECT_GE(syncs, 2);
}

// Of two writes to one chunk the second finds the bit set. It may not pass before the bit is where
// a power cut leaves it: the partition would have lost what the COW files do not promise yet.
SIM_TEST(CowThread, AWriteWaitsUntilTheBitOfItsChunkIsOnDisk) {
  SnapBench bench(sim);
  bench.add_started(7, 65536);
  sim.spawn("writer", [&] { EXPECT_EQ(bench.write(1, 0x11), 0); });
  sim.wait_until([&] { return snbf_cowbmp_is_set(&bench.snap(7)->cow_bmp, 0); });
  bench.store_disk->hold(true);
  Io second =
      sim.submit(kNode(kOrigin), {.op = Op::Write, .sector = 24, .data = Bytes(4096, 0x33)});
  sim.sleep_us(200'000);
  EXPECT_FALSE(second.done());
  EXPECT_EQ(bench.disk->peek(24, 512), Bytes(512));
  bench.store_disk->hold(false);
  bench.store_disk->release_all();
  EXPECT_EQ(second.wait(), 0);
  sim.join_all();
  EXPECT_EQ(bench.read(kOrigin, 3), 0x33);
  EXPECT_EQ(bench.read(7, 3), 0);
}

SIM_TEST(CowThread, AGroupHoldsFourMiB) {
  SnapBench bench(sim, {.bytes = 20 << 20, .store_bytes = 64 << 20});
  struct Case {
    u32 chunk_size;
    const char* line;
  };
  for (const Case& one :
       {Case{4096, "COWing 1024 chunks (1024 pages)"}, Case{8192, "COWing 512 chunks (1024 pages)"},
        Case{4194304, "COWing 1 chunks (1024 pages)"},
        Case{8388608, "COWing 1 chunks (2048 pages)"}}) {
    SCOPED_TRACE(one.line);
    bench.add_started(7, one.chunk_size);
    sim.log().clear();
    ASSERT_EQ(bench.write(0, 0x55, 8 << 20), 0);
    EXPECT_TRUE(sim.log().contains(one.line)) << sim.log().last("COWing");
    EXPECT_EQ(bench.read(7, 0), one.chunk_size == 4096 ? 0 : 0x55);
    EXPECT_EQ(bench.read(7, 2047), one.chunk_size == 4096 ? 0 : 0x55);
    ASSERT_EQ(delete_node(sim, 7), 0);
  }
}

SIM_TEST(CowThread, TheLastChunkEndsWithThePartition) {
  SnapBench bench(sim, {.bytes = (256 << 10) + 512 * 5});
  const u64 last = (256 << 10) / 512;
  ASSERT_EQ(sim.write(kNode(kOrigin), last, Bytes(512 * 5, 0x44)), 0);
  ASSERT_EQ(bench.write(0, 0x33), 0);
  bench.add_started(7, 65536);
  ASSERT_EQ(bench.write(0, 0x99), 0);  // what this copy leaves in memory is not the next one's
  ASSERT_EQ(sim.write(kNode(kOrigin), last + 1, Bytes(512, 0x99)), 0);
  EXPECT_EQ(info_of(sim, 7).snap_valid, 1u);
  Bytes data;
  ASSERT_EQ(sim.read(kNode(7), last, 512 * 5, &data), 0);
  EXPECT_EQ(data, Bytes(512 * 5, 0x44));
  Bytes expected(65536);
  std::fill_n(expected.begin(), 512 * 5, u8{0x44});
  const Bytes file = bench.file(bench.data_file(7));
  ASSERT_EQ(file.size(), u64{5 * 65536});
  EXPECT_EQ(Bytes(file.begin() + last * 512, file.end()), expected);
}

SIM_TEST(CowThread, TwoQueuedWritesToAChunkMakeOneCopy) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7, 8192);
  sim.log().clear();
  bench.disk->hold(true);  // the copy's read waits, so both are queued
  for (int i = 0; i < 2; ++i) {
    sim.spawn("writer",
              [&, i] { EXPECT_EQ(sim.write(kNode(kOrigin), 8 + 4 * i, Bytes(2048, 0x99)), 0); });
  }
  sim.wait_until([&] { return bench.filter()->cowqueue.length() == 2; });
  bench.disk->hold(false);
  bench.disk->release_all();
  sim.join_all();
  EXPECT_EQ(sim.log().count("COWing 1 chunks"), 1);
  EXPECT_EQ(sim.log().count("COWing"), 1);
  EXPECT_EQ(bench.read(7, 1), 0x11);
}

SIM_TEST(CowThread, AReadOfNothingCopiedGoesToThePartition) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(2, 0x22), 0);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x99), 0);
  const u64 store_reads = bench.store_disk->counts().reads;
  const u64 disk_reads = bench.disk->counts().reads;
  EXPECT_EQ(bench.read(7, 2), 0x22);
  EXPECT_EQ(bench.disk->counts().reads, disk_reads + 1);
  EXPECT_EQ(bench.store_disk->counts().reads, store_reads);
}

SIM_TEST(CowThread, AReadIsPutTogetherFromEverySourceItNeeds) {
  SnapBench bench(sim);
  for (u64 block = 0; block < 6; ++block)
    ASSERT_EQ(bench.write(block, static_cast<u8>(0x10 + block)), 0);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x91), 0);
  bench.add_started(8);
  ASSERT_EQ(bench.write(3, 0x93), 0);
  ASSERT_EQ(bench.write(1, 0xA1), 0);
  Bytes data;
  ASSERT_EQ(sim.read(kNode(7), 4, 5 * 4096, &data),
            0);  // from the middle of block 0 to that of block 5
  for (u64 i = 0; i < data.size(); ++i) ASSERT_EQ(data[i], 0x10 + (i + 2048) / 4096) << i;
  ASSERT_EQ(sim.read(kNode(8), 4, 5 * 4096, &data), 0);
  for (u64 i = 0; i < data.size(); ++i) {
    const u64 block = (i + 2048) / 4096;
    ASSERT_EQ(data[i], block == 1 ? 0x91 : 0x10 + block) << i;
  }
}

// ---- Copies that fail

void expect_broken(SnapBench& bench, std::initializer_list<u32> broken, u32 sound) {
  Sim& sim = bench.sim;
  for (const u32 minor : broken) {
    EXPECT_EQ(sim.log().count("Invalidating snap device snbf(100, " + std::to_string(minor) + ")"),
              1)
        << minor;
    EXPECT_EQ(info_of(sim, minor).snap_valid, 0u) << minor;
    EXPECT_EQ(info_of(sim, minor).started, 1u) << minor;
    EXPECT_EQ(bench.read(minor, 1), -EIO) << minor;
    EXPECT_EQ(bench.file(bench.data_file(minor)).size(), 0u) << minor;
  }
  if (sound != 0) {
    EXPECT_EQ(info_of(sim, sound).snap_valid, 1u);
  }
}

SIM_TEST(CowThread, AFailedReadOfThePartitionBreaksTheSnapAndTheOlderOnes) {
  SnapBench bench(sim);
  bench.add_started(7);
  bench.add_started(8);
  bench.disk->fail_range(8, 8, Op::Read, -EIO);
  EXPECT_EQ(bench.write(1, 0x99), 0);
  // Kept: the number is the sector's, shifted by as much as a byte's would be.
  EXPECT_EQ(bench.errors("Failed to read 4096-byte block #0 from snbf3"), 1);
  bench.disk->clear_failures();
  EXPECT_EQ(bench.read(kOrigin, 1), 0x99);
  expect_broken(bench, {7, 8}, 0);
  // One that is started afterwards is sound.
  bench.add_started(9);
  ASSERT_EQ(bench.write(1, 0xAA), 0);
  EXPECT_EQ(bench.read(9, 1), 0x99);
}

SIM_TEST(CowThread, AFailedReadOfAnyPageOfAChunkBreaksTheSnap) {
  SnapBench bench(sim);
  for (const u32 page : {0u, 1u, 2u, 3u}) {
    const u32 minor = 7 + page;
    bench.add_started(minor, 4 * kPageBytes4K);
    bench.disk->fail_range(8 * page, 8, Op::Read, -EIO);
    EXPECT_EQ(bench.write(0, 0x99), 0);
    bench.disk->clear_failures();
    expect_broken(bench, {minor}, 0);
    ASSERT_EQ(delete_node(sim, minor), 0);
  }
}

// Or a power cut would bring the file back, and a resume would take it for a whole image.
SIM_TEST(CowThread, ThatABrokenSnapsFileIsEmptyIsOnDiskBeforeTheWriteGoes) {
  SnapBench bench(sim);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  EXPECT_FALSE(bench.store->dirty());
  bench.disk->fail_range(16, 8, Op::Read, -EIO);
  EXPECT_EQ(bench.write(2, 0x99), 0);
  EXPECT_FALSE(bench.store->dirty());
  bench.disk->clear_failures();
  expect_broken(bench, {7}, 0);
}

SIM_TEST(CowThread, AFailureOfAnyFileOperationBreaksTheSnapAndNoWrite) {
  SnapBench bench(sim);
  u32 minor = 7;
  for (const Fault fault : {Fault::FileWrite, Fault::FileSync, Fault::ZeroWrite}) {
    for (u64 nth = 1; nth <= 4; ++nth) {
      SCOPED_TRACE("fault " + std::to_string(static_cast<int>(fault)) + " at call " +
                   std::to_string(nth));
      ASSERT_EQ(bench.write(1, 0x11), 0);
      bench.add_started(minor);
      sim.log().clear();
      sim.fail_nth(fault, nth);
      EXPECT_EQ(bench.write(1, 0x99), 0);
      const bool reached = sim.fault_reached(fault);
      sim.clear_faults();
      EXPECT_EQ(bench.read(kOrigin, 1), 0x99);
      if (reached) {
        expect_broken(bench, {minor}, 0);
      } else {
        EXPECT_EQ(bench.read(minor, 1), 0x11);
      }
      ASSERT_EQ(delete_node(sim, minor), 0);
      if (!reached) break;
    }
  }
}

// Every other block of the first thirty-two: as many pieces of the data file.
int touch_every_other(SnapBench& bench) {
  Sim& sim = bench.sim;
  std::vector<Io> writes;
  for (u64 block = 0; block < 32; block += 2) {
    writes.push_back(sim.submit(kNode(kOrigin),
                                {.op = Op::Write, .sector = block * 8, .data = Bytes(4096, 0x99)}));
  }
  int failed = 0;
  for (Io& write : writes) failed += write.wait() != 0;
  return failed;
}

SIM_TEST(CowThread, OnePieceOfManyThatFailsBreaksTheSnapAndNoWrite) {
  SnapBench bench(sim);
  bench.add_started(7);
  bench.add_started(8);
  // Among the blocks that the store gives out next.
  const u64 last = bench.store->map(bench.bmp_file(8)).back().first;
  bench.store_disk->fail_range(last + 5 * 8, 8, Op::Write, -EIO);
  EXPECT_EQ(touch_every_other(bench), 0);
  bench.store_disk->clear_failures();
  EXPECT_EQ(bench.errors("snbf_fwrite(): Failed to write 4096 bytes into /store/snap8.data: rc=-5"),
            1)
      << sim.log().dump();
  expect_broken(bench, {7, 8}, 0);
  for (u64 block = 0; block < 32; block += 2) EXPECT_EQ(bench.read(kOrigin, block), 0x99);
}

// They go through the store's page cache, and the snap does not try again.
void expect_written_all_the_same(SnapBench& bench, const std::function<void()>& refuse) {
  Sim& sim = bench.sim;
  for (u64 block = 0; block < 32; ++block) {
    ASSERT_EQ(bench.write(block, static_cast<u8>(block + 1)), 0);
  }
  bench.add_started(7);
  EXPECT_FALSE(bench.snap(7)->is_buffered);
  refuse();
  EXPECT_EQ(touch_every_other(bench), 0);
  EXPECT_TRUE(bench.snap(7)->is_buffered);
  EXPECT_FALSE(sim.log().has_errors()) << sim.log().dump();
  const u64 tried = sim.calls(Fault::DirectWrite);
  ASSERT_EQ(bench.write(31, 0x99), 0);
  EXPECT_EQ(sim.calls(Fault::DirectWrite), tried);
  for (u64 block = 0; block < 32; ++block) {
    EXPECT_EQ(bench.read(7, block), static_cast<int>(block + 1));
  }
  // Another start may find another store.
  ASSERT_EQ(stop_node(sim, 7), 0);
  bench.store->set_takes_direct(true);
  ASSERT_EQ(start_node(sim, 7), 0);
  ASSERT_EQ(bench.write(5, 0x55), 0);
  EXPECT_GT(sim.calls(Fault::DirectWrite), tried);
  EXPECT_FALSE(bench.snap(7)->is_buffered);
}

SIM_TEST(CowThread, AStoreThatTakesNoDirectWritesGetsTheCopiesAllTheSame) {
  SnapBench bench(sim);
  expect_written_all_the_same(bench, [&] { bench.store->set_takes_direct(false); });
}

SIM_TEST(CowThread, ADirectWriteThatIsRefusedIsWrittenAllTheSame) {
  SnapBench bench(sim);
  expect_written_all_the_same(bench, [&] { sim.fail_nth(Fault::DirectWrite, 3); });
}

SIM_TEST(CowThread, AFullStoreBreaksTheSnapAndNoWrite) {
  SnapBench bench(sim);
  bench.add_started(7);
  bench.add_started(8);
  bench.store->set_free_blocks(1);
  for (u64 block = 0; block < 32; ++block) EXPECT_EQ(bench.write(block, 0x99), 0);
  for (u64 block = 0; block < 32; ++block) EXPECT_EQ(bench.read(kOrigin, block), 0x99);
  expect_broken(bench, {7, 8}, 0);
  bench.store->set_free_blocks(~0ull);
}

// The store does not answer: after ten seconds the snap is given up and the writes go on; kcowd
// finds that later.
SIM_TEST(CowThread, AStoreThatStallsHoldsNoWriteLongerThanTenSeconds) {
  SnapBench bench(sim);
  bench.add_started(7);
  bench.add_started(8);
  bench.store_disk->hold(true);
  u64 slowest = 0;
  for (int i = 0; i < 6; ++i) {
    sim.spawn("writer", [&, i] {
      for (int n = 0; n < 3; ++n) {
        const u64 before = sim.now_us();
        EXPECT_EQ(bench.write(static_cast<u64>(i / 2 + 4 * n), static_cast<u8>(0x90 + n)), 0);
        slowest = std::max(slowest, sim.now_us() - before);
        sim.sleep_us(sim.random(3'000'000));
      }
    });
  }
  sim.join_all();
  EXPECT_GE(slowest, 9'000'000u);
  EXPECT_LE(slowest, 11'000'000u);
  for (const u32 minor : {7u, 8u}) {
    EXPECT_EQ(bench.proc(minor, "snap_valid"), "0\n");
    EXPECT_EQ(bench.read(minor, 1), -EIO);
  }
  EXPECT_EQ(bench.read(kOrigin, 0), 0x90);
  bench.store_disk->hold(false);
  bench.store_disk->release_all();
  sim.sleep_us(1'000'000);
  EXPECT_EQ(bench.read(7, 1), -EIO);
  EXPECT_EQ(sim.log().count("Invalidating snap device snbf(100, 7)"), 1);
  EXPECT_EQ(sim.log().count("Invalidating snap device snbf(100, 8)"), 1);
  ASSERT_EQ(stop_node(sim, 7), 0);
  ASSERT_EQ(stop_node(sim, 8), 0);
  ASSERT_EQ(bench.write(1, 0x55), 0);
  bench.add_started(9);
  ASSERT_EQ(bench.write(1, 0x66), 0);
  EXPECT_EQ(bench.read(9, 1), 0x55);
}

// A partition that fails the write answers its own error.
SIM_TEST(CowThread, AWriteThatThePartitionFailsIsAnsweredSo) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  bench.disk->fail_range(8, 8, Op::Write, -EIO);
  EXPECT_EQ(bench.write(1, 0x99), -EIO);
  bench.disk->clear_failures();
  EXPECT_EQ(info_of(sim, 7).snap_valid, 1u);
  EXPECT_EQ(bench.read(7, 1), 0x11);
}

SIM_TEST(CowThread, DiscardsAreCopiedForToo) {
  SnapBench bench(sim);
  for (u64 block = 0; block < 8; ++block) ASSERT_EQ(bench.write(block, 0x11), 0);
  bench.add_started(7);
  EXPECT_EQ(sim.discard(kNode(kOrigin), 8, 4096), 0);
  EXPECT_EQ(sim.write_zeroes(kNode(kOrigin), 16, 4096), 0);
  EXPECT_EQ(sim.discard(kNode(kOrigin), 0, 1 << 20), 0);
  for (u64 block = 0; block < 8; ++block) {
    EXPECT_EQ(bench.read(7, block), 0x11);
    EXPECT_EQ(bench.read(kOrigin, block), 0);
  }
}

// Its own memory is set aside: under pressure writes are still released.
SIM_TEST(CowThread, ReleasesWritesWithoutMemory) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  sim.set_memory_pressure(true);
  for (int i = 0; i < 4; ++i) {
    sim.spawn("writer", [&, i] {
      for (u64 block = 0; block < 32; ++block) EXPECT_EQ(bench.write(block + 32u * i, 0x99), 0);
    });
  }
  sim.join_all();
  sim.set_memory_pressure(false);
  if (info_of(sim, 7).snap_valid != 0) {
    EXPECT_EQ(bench.read(7, 1), 0x11);
  }
}

}  // namespace
}  // namespace snbf::sim
