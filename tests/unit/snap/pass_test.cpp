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

}  // namespace
}  // namespace snbf::sim
