#include "filter/kdirtyd.h"

#include <memory>

#include "filter/bmpfile.h"
#include "parts_rig.h"

namespace snbf::sim {
namespace {

constexpr const char* kIncr = "/var/bmp/snbf3.incr";
constexpr const char* kDiff = "/var/bmp/snbf3.diff";
const Bytes kFlagged = {'S', 'N', 'B', 'F', 'B', 'M', 'P', 1};

Bytes contents(Sim& sim, const char* path) {
  Bytes data;
  sim.peek_file(path, &data);
  return data;
}

SIM_TEST(Kdirtyd, StartsOnceAndStopsOnce) {
  LoggedParts parts;
  ASSERT_EQ(snbf_start_kdirtyd(), 0);
  EXPECT_TRUE(sim.log().contains("snbf_start_kdirtyd(): Starting kdirtyd"));
  EXPECT_TRUE(
      sim.log().contains("snbf_start_kdirtyd(): kdirtyd has been started successfully: pid="));
  EXPECT_EQ(snbf_start_kdirtyd(), -EALREADY);
  EXPECT_EQ(sim.log().count("snbf_start_kdirtyd(): kdirtyd has already been started.", 3), 1);
  sim.wait_until(
      [&] { return sim.log().contains("kdirtyd(): Waiting for dirty requests to come..."); });
  EXPECT_TRUE(sim.log().contains("kdirtyd(): Started."));
  ASSERT_EQ(snbf_stop_kdirtyd(), 0);
  EXPECT_TRUE(sim.log().contains("snbf_stop_kdirtyd(): Stopping kdirtyd"));
  EXPECT_TRUE(sim.log().contains("kdirtyd(): Terminated."));
  EXPECT_TRUE(sim.log().contains("snbf_stop_kdirtyd(): kdirtyd has been stopped successfully"));
  EXPECT_EQ(snbf_stop_kdirtyd(), -ESRCH);
  EXPECT_EQ(sim.log().count("snbf_stop_kdirtyd(): kdirtyd is not running.", 3), 1);
  ASSERT_EQ(snbf_start_kdirtyd(), 0);
  ASSERT_EQ(snbf_stop_kdirtyd(), 0);
}

SIM_TEST(Kdirtyd, AnswersTheErrorOfItsStart) {
  LoggedParts parts;
  sim.fail_nth(Fault::ThreadStart, 1, -EAGAIN);
  EXPECT_EQ(snbf_start_kdirtyd(), -EAGAIN);
  EXPECT_EQ(sim.log().count("snbf_start_kdirtyd(): Failed to start kdirtyd: rc=-11", 3), 1);
  EXPECT_EQ(snbf_stop_kdirtyd(), -ESRCH);
}

SIM_TEST(Kdirtyd, RaisesTheFlagThatWasAskedFor) {
  BareFilter filter(sim, 64);
  ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR), 0);
  EXPECT_TRUE(
      sim.log().contains("snbf_sched_write_dirty_flag(): Appending dirty request for "
                         "Incremental bitmap of snbf(100, 3)"));
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
  // Not before the write is finished.
  EXPECT_EQ(contents(sim, kIncr), kFlagged);
  EXPECT_FALSE(sim.exists(kDiff));
  EXPECT_TRUE(sim.log().contains("kdirtyd(): Got 1 requests in queue"));
  ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_DIFF), 0);
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
  EXPECT_EQ(contents(sim, kDiff), kFlagged);
}

SIM_TEST(Kdirtyd, GoesOnAfterAFailedWrite) {
  BareFilter filter(sim, 64);
  sim.fail_nth(Fault::FileOpen, 1, -EPERM);
  ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR), 0);
  ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_DIFF), 0);
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
  EXPECT_FALSE(sim.exists(kIncr));
  EXPECT_EQ(contents(sim, kDiff), kFlagged);
}

SIM_TEST(DirtyRequest, IsLostWithoutMemory) {
  BareFilter filter(sim, 64);
  sim.fail_nth(Fault::Heap, 1);
  EXPECT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR), -ENOMEM);
  EXPECT_EQ(sim.log().count("snbf_sched_write_dirty_flag(): Memory allocation failure", 3), 1);
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
  EXPECT_FALSE(sim.exists(kIncr));
}

// The thread is held at the mutex with a request of the bitmap that is saved meanwhile.
SIM_TEST(DirtyRequest, ThatASaveCancelsIsSkipped) {
  BareFilter filter(sim, 64);
  {
    KsMutexGuard file_work{filter.node->bmp_mutex};
    ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR), 0);
    sim.wait_until([&] { return sim.log().contains("Got 1 requests in queue"); });
    sim.sleep_us(1000);
    ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  }
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
  EXPECT_EQ(contents(sim, kIncr).size(), 16u + 8);
  EXPECT_FALSE(sim.log().contains("Writing dirty flag"));
}

// Its bit may be in the file by then, which it cuts down all the same: what the file showed is to be saved again.
SIM_TEST(DirtyRequest, ThatComesLateHasTheBitmapSavedAgain) {
  BareFilter filter(sim, 64);
  filter.set_dirty(0, 0);
  ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR), 0);
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
  EXPECT_EQ(filter.incr_dirty(), 1);
  EXPECT_EQ(filter.diff_dirty(), 0);
}

// Its store may lie on a node, and the memory may be had only by its own work.
SIM_TEST(DirtyRequest, OfACowThreadWaitsForNoMemory) {
  BareFilter filter(sim, 64);
  sim.hold_heap(true);
  bool over = false;
  sim.spawn("kcowd9", [&] {
    snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR);
    over = true;
  });
  sim.sleep_us(1'000'000);
  EXPECT_TRUE(over);
  sim.hold_heap(false);
  sim.join_all();
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
}

SIM_TEST(DirtyRequest, CancellingMeansOneBitmapOfOneNode) {
  BareFilter filter(sim, 64);
  auto other = std::make_unique<FilterNode>();
  other->bmp_spin.init("bmp_spin");
  {
    KsMutexGuard file_work{filter.node->bmp_mutex};
    // The first occupies the thread; the others are cancelled in the queue.
    ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_DIFF), 0);
    sim.wait_until([&] { return sim.log().contains("Got 1 requests in queue"); });
    ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR), 0);
    ASSERT_EQ(snbf_kill_dirty_requests(*other, SNBF_BMP_INCR), 0);
    ASSERT_EQ(snbf_kill_dirty_requests(*other, SNBF_BMP_DIFF), 0);
    ASSERT_EQ(snbf_kill_dirty_requests(*filter.node, SNBF_BMP_INCR), 0);
  }
  EXPECT_TRUE(
      sim.log().contains("snbf_kill_dirty_requests(): Killing all dirty requests for "
                         "Incremental bitmap of snbf(100, 3)"));
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
  EXPECT_EQ(contents(sim, kDiff), kFlagged);
  EXPECT_FALSE(sim.exists(kIncr));
}

SIM_TEST(DirtyRequest, WhoWaitsForItGivesUpInTime) {
  BareFilter filter(sim, 64);
  {
    KsMutexGuard file_work{filter.node->bmp_mutex};
    ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR), 0);
    const u64 before_us = sim.now_us();
    EXPECT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), -ETIMEDOUT);
    EXPECT_GE(sim.now_us() - before_us, 9'990'000u);
    EXPECT_LT(sim.now_us() - before_us, 11'000'000u);
  }
  EXPECT_EQ(sim.log().count("snbf_yield_to_dirty_requests(): There are still some dirty requests "
                            "pending for snbf(100, 3). Continuing anyway...",
                            3),
            1);
}

SIM_TEST(DirtyRequest, OfAnotherNodeIsNotWaitedFor) {
  BareFilter filter(sim, 64);
  auto other = std::make_unique<FilterNode>();
  KsMutexGuard file_work{filter.node->bmp_mutex};
  ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR), 0);
  const u64 before_us = sim.now_us();
  EXPECT_EQ(snbf_yield_to_dirty_requests(*other, 10), 0);
  EXPECT_EQ(snbf_yield_to_dirty_requests(*other, 0), 0);
  EXPECT_LT(sim.now_us() - before_us, 1'000'000u);
}

SIM_TEST(Kdirtyd, DiscardsWhatIsQueuedAtItsEnd) {
  BareFilter filter(sim, 64);
  Task* stopper = nullptr;
  {
    KsMutexGuard file_work{filter.node->bmp_mutex};
    ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_INCR), 0);
    sim.wait_until([&] { return sim.log().contains("Got 1 requests in queue"); });
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(snbf_sched_write_dirty_flag(*filter.node, SNBF_BMP_DIFF), 0);
    }
    stopper = sim.spawn("stopper", [] { EXPECT_EQ(snbf_stop_kdirtyd(), 0); });
    sim.sleep_us(1000);
  }
  sim.join(stopper);
  // The one in hand was written, the rest not; their records are gone, or the test would fail.
  EXPECT_EQ(contents(sim, kIncr), kFlagged);
  EXPECT_FALSE(sim.exists(kDiff));
  ASSERT_EQ(snbf_start_kdirtyd(), 0);
}

}  // namespace
}  // namespace snbf::sim
