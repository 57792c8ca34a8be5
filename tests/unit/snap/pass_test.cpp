// A pass over the COW queue ends, whatever comes in meanwhile; and what a stop leaves of a snap that
// was given up beside it.
#include "snap/invalidate.h"
#include "snap_bench.h"

namespace snbf::sim {
namespace {

constexpr u64 kReaders = 8;
constexpr u64 kHeldBlock = 200;

// Readers of a snap, each of blocks of its own that were copied: their reads go through the COW
// queue, and while one is served the next ones come in.
class ReadStream {
 public:
  ReadStream(SnapBench& bench, u64 limit) : bench_(bench), limit_(limit) {
    for (u64 block = 0; block < kReaders; ++block) {
      bench.sim.spawn("reader", [this, block] { read(block); });
    }
    bench.sim.wait_until([this] { return reads_ >= 2 * kReaders; });
  }
  ~ReadStream() {
    over_ = true;
    bench_.sim.join_all();
  }

  // Of those that ended while a write to the block was held for its copy.
  u64 reads_before_copy() const { return before_copy_; }

 private:
  void read(u64 block) {
    while (!over_ && reads_ < limit_) {
      Io first = submit(block);
      Io second = submit(block + kReaders);
      EXPECT_EQ(first.wait(), 0);
      EXPECT_EQ(second.wait(), 0);
      reads_ += 2;
      if (is_held()) before_copy_ += 2;
    }
  }
  bool is_held() {
    return bench_.filter()->cowqueue.writes.load() != 0 &&
           !snbf_cowbmp_is_set(&bench_.snap(7)->cow_bmp, kHeldBlock);
  }
  Io submit(u64 block) {
    return bench_.sim.submit(kNode(7), {.op = Op::Read, .sector = block * 8, .bytes = 4096});
  }

  SnapBench& bench_;
  u64 limit_;
  u64 reads_ = 0;
  u64 before_copy_ = 0;
  bool over_ = false;
};

// Copied once, for the reads to need the COW data file.
void add_copied(SnapBench& bench) {
  bench.add_started(7);
  for (u64 block = 0; block < 2 * kReaders; ++block) EXPECT_EQ(bench.write(block, 0x98), 0);
}

SIM_TEST(CowPass, ReadsThatKeepComingHoldUpNoWrite) {
  SnapBench bench(sim, {.debug = 0});
  add_copied(bench);
  ReadStream stream(bench, 3000);
  EXPECT_EQ(bench.write(kHeldBlock, 0x55), 0);
  EXPECT_LE(stream.reads_before_copy(), 100u);
}

// Whoever comes to it first, kcowd or the stop, empties the data file: it must not pass for an
// image.
SIM_TEST_SEEDS(CowPass, ASnapThatIsGivenUpIsEmptyBehindItsStop, 200) {
  SnapBench bench(sim, {.debug = 0});
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  sim.spawn("quitter", [&] {
    // As a resume does it.
    KsReadGuard table{snbf_blkdev_rwlock};
    KsWriteGuard drained{bench.filter()->io_rwlock};
    invalidate_snaps_without_files(*bench.snap(7));
  });
  EXPECT_EQ(stop_node(sim, 7), 0);
  sim.join_all();
  if (info_of(sim, 7).snap_valid == 0) {
    EXPECT_EQ(bench.file(bench.data_file(7)).size(), 0u);
  }
}

SIM_TEST_SEEDS(CowPass, AnOlderSnapIsEmptyToo, 40) {
  SnapBench bench(sim, {.debug = 0});
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(8);
  sim.fail_nth(Fault::FileWrite, 1);
  sim.spawn("writer", [&] { EXPECT_EQ(bench.write(2, 0x22), 0); });
  sim.sleep_us(sim.random(2000));
  EXPECT_EQ(stop_node(sim, 7), 0);
  sim.join_all();
  sim.clear_faults();
  if (info_of(sim, 7).snap_valid == 0) {
    EXPECT_EQ(bench.file(bench.data_file(7)).size(), 0u);
  }
}

// Put in by hand: nothing of the kind comes by the request path.
int queue_read(SnapBench& bench, plat_devt device) {
  Io io;
  plat_bio* bio = bench.sim.make_bio(Op::Read, 0, 4096, device, &io);
  EXPECT_EQ(snbf_cowqueue_append(&bench.filter()->cowqueue, 7, bio, PLAT_ALLOC_NOIO), 0);
  return io.wait();
}

// One that comes in during a pass is looked at again in the next, and told twice.
SIM_TEST(CowPass, RequestsToNobodyFail) {
  SnapBench bench(sim);
  bench.add_started(7);
  ASSERT_EQ(bench.add(8), 0);
  EXPECT_EQ(queue_read(bench, kNode(99)), -EIO);
  EXPECT_GE(bench.errors("kcowd(): Request to unknown snbf(100, 99) in snbf(100, 3) queue"), 1);
  EXPECT_EQ(queue_read(bench, dev(8, 1)), -EIO);
  EXPECT_GE(bench.errors("kcowd(): Request to unknown block device in COW request queue"), 1);
  sim.log().clear();
  EXPECT_EQ(queue_read(bench, kNode(8)), -EIO) << "it is not started";
  EXPECT_EQ(queue_read(bench, kNode(7)), 0);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(CowPass, AWriteThatCannotBeClonedFails) {
  SnapBench bench(sim);
  bench.add_started(7);
  sim.fail_nth(Fault::BioClone, 1);
  EXPECT_EQ(bench.write(1, 0x11), -EIO);
  EXPECT_EQ(bench.errors("kcowd(): Failed to clone BIO"), 1);
  EXPECT_EQ(bench.write(1, 0x22), 0);
  EXPECT_EQ(bench.read(kOrigin, 1), 0x22);
  EXPECT_EQ(bench.read(7, 1), 0);
}

SIM_TEST(CowPass, AReadThatThePartitionFailsIsAnsweredSo) {
  SnapBench bench(sim);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.disk->fail_range(16, 8, Op::Read, -EIO);
  Bytes data;
  EXPECT_EQ(sim.read(kNode(7), 8, 2 * 4096, &data), -EIO);
  EXPECT_EQ(
      bench.errors("kcowd(): Failed to read 4096 bytes starting from sector 16 from device ("), 1);
  bench.disk->clear_failures();
  EXPECT_EQ(sim.read(kNode(7), 8, 2 * 4096, &data), 0);
  EXPECT_EQ(data, Bytes(2 * 4096));
}

// The memory of the read begins within a page, so that each page of the snap is read in two pieces.
SIM_TEST_SEEDS(CowPass, AReadOfMorePiecesThanThereAreRequestsGoesInTurns, 1) {
  constexpr u32 kBytes = 4 << 20;
  SnapBench bench(sim, {.bytes = 8 << 20, .store_bytes = 32 << 20, .debug = 0});
  Bytes expected;
  for (u32 page = 0; page < kBytes / 4096; ++page) {
    expected.insert(expected.end(), 4096, static_cast<u8>(page % 251));
  }
  bench.disk->poke(0, expected);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0xFF), 0);
  const auto read = [&] {
    return sim.submit(kNode(7), {.op = Op::Read, .bytes = kBytes, .first_piece_offset = 512});
  };
  const Io whole = read();
  EXPECT_EQ(whole.wait(), 0);
  EXPECT_EQ(whole.data(), expected);
  bench.disk->fail_range(24, 8, Op::Read, -EIO);
  EXPECT_EQ(read().wait(), -EIO);
}

// The watchdog lets writes go that the image needed held, so the read that was being served is not of that
// image any more.
SIM_TEST(CowPass, AReadWhoseStoreStallsFailsAndHoldsUpNoWrite) {
  SnapBench bench(sim);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.store_disk->hold(true);
  const Io read = sim.submit(kNode(7), {.op = Op::Read, .sector = 8, .bytes = 4096});
  sim.sleep_us(1'000'000);
  const u64 before = sim.now_us();
  EXPECT_EQ(bench.write(2, 0x22), 0);
  EXPECT_LE(sim.now_us() - before, 11'000'000u);
  EXPECT_FALSE(read.done());
  EXPECT_EQ(info_of(sim, 7).snap_valid, 0u);
  bench.store_disk->hold(false);
  bench.store_disk->release_all();
  EXPECT_EQ(read.wait(), -EIO);
}

// It is in the queue for lack of memory, and its sender has seen the write go.
SIM_TEST(CowPass, AReadGoesBehindTheHeldWriteThatItOverlaps) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  bench.disk->hold(true);
  const Io copied =
      sim.submit(kNode(kOrigin), {.op = Op::Write, .sector = 72, .data = Bytes(4096, 0x99)});
  sim.wait_until([&] { return bench.disk->held().size() == 1; });
  const Io write =
      sim.submit(kNode(kOrigin), {.op = Op::Write, .sector = 8, .data = Bytes(4096, 0x22)});
  sim.fail_nth(Fault::BioClone, 1);
  const Io read = sim.submit(kNode(kOrigin), {.op = Op::Read, .sector = 8, .bytes = 4096});
  sim.wait_until([&] { return bench.filter()->cowqueue.length() == 3; });
  bench.disk->hold(false);
  bench.disk->release_all();
  EXPECT_EQ(read.wait(), 0);
  EXPECT_EQ(read.data(), Bytes(4096, 0x22));
  EXPECT_EQ(write.wait(), 0);
  EXPECT_EQ(copied.wait(), 0);
}

// A snap's read of the old contents is under way, which the write has to wait for.
SIM_TEST(CowPass, AReleasedWriteStaysInTheQueueUntilItMayGo) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  bench.disk->hold(true);
  const Io read = sim.submit(kNode(7), {.op = Op::Read, .sector = 8, .bytes = 4096});
  sim.wait_until([&] { return bench.disk->held().size() == 1; });
  const Io write =
      sim.submit(kNode(kOrigin), {.op = Op::Write, .sector = 8, .data = Bytes(4096, 0x22)});
  sim.wait_until([&] { return bench.disk->held().size() == 2; });
  bench.disk->release(1);  // the read for the copy
  sim.wait_until([&] { return snbf_cowbmp_is_set(&bench.snap(7)->cow_bmp, 1); });
  sim.sleep_us(200'000);
  EXPECT_EQ(bench.filter()->cowqueue.writes.load(), 1);
  const Io later =
      sim.submit(kNode(kOrigin), {.op = Op::Write, .sector = 8, .data = Bytes(4096, 0x33)});
  EXPECT_EQ(bench.filter()->cowqueue.writes.load(), 2);
  bench.disk->hold(false);
  bench.disk->release_all();
  EXPECT_EQ(read.wait(), 0);
  EXPECT_EQ(read.data(), Bytes(4096, 0x11));
  EXPECT_EQ(write.wait(), 0);
  EXPECT_EQ(later.wait(), 0);
  EXPECT_EQ(bench.read(kOrigin, 1), 0x33);
}

// By the time that it is answered there is no image: a newer snap was resumed, and had none.
SIM_TEST(CowPass, AReadWhoseSnapIsGivenUpMeanwhileFails) {
  SnapBench bench(sim);
  bench.add_started(7);
  bench.add_started(8);
  ASSERT_EQ(stop_node(sim, 7), 0);
  ASSERT_EQ(stop_node(sim, 8), 0);
  ASSERT_EQ(bench.resume(7), 0);
  ASSERT_EQ(bench.write(1, 0x99), 0);
  bench.disk->hold(true);
  const Io read = sim.submit(kNode(7), {.op = Op::Read, .sector = 8, .bytes = 2 * 4096});
  sim.wait_until(
      [&] { return bench.disk->held().size() == 1; });  // of the block that is not copied
  ASSERT_EQ(bench.resume(8, 0), 0);
  bench.disk->hold(false);
  bench.disk->release_all();
  EXPECT_EQ(read.wait(), -EIO);
}

// Chunks whose numbers fall on the same place of the set of those that are copied just now.
SIM_TEST(CowPass, TellsChunksOfAGroupApart) {
  constexpr u64 kChunks[] = {5, 0x1004, 0x2007};
  SnapBench bench(sim, {.bytes = 72 << 20, .store_bytes = 128 << 20, .debug = 0});
  bench.add_started(7, 8192);
  bench.disk->hold(true);
  for (int round = 0; round < 2; ++round) {
    for (const u64 chunk : kChunks) {
      sim.spawn("writer", [&, chunk, round] {
        EXPECT_EQ(
            sim.write(kNode(kOrigin), chunk * 16 + 4 * static_cast<u64>(round), Bytes(2048, 0x99)),
            0);
      });
    }
  }
  sim.wait_until([&] { return bench.filter()->cowqueue.length() == 6; });
  bench.disk->hold(false);
  bench.disk->release_all();
  // The first has been copied by itself, the others together.
  sim.wait_until([&] { return snbf_cowbmp_is_set(&bench.snap(7)->cow_bmp, kChunks[2]); });
  bench.store_disk->hold(true);
  const Io late = sim.submit(
      kNode(kOrigin), {.op = Op::Write, .sector = kChunks[2] * 16 + 8, .data = Bytes(4096, 0x77)});
  sim.sleep_us(200'000);
  EXPECT_FALSE(late.done());
  bench.store_disk->hold(false);
  bench.store_disk->release_all();
  sim.join_all();
  EXPECT_EQ(late.wait(), 0);
  for (const u64 chunk : kChunks) EXPECT_EQ(bench.read(7, 2 * chunk), 0) << chunk;
  EXPECT_EQ(bench.read(7, 2 * kChunks[2] + 1), 0);
}

}  // namespace
}  // namespace snbf::sim
