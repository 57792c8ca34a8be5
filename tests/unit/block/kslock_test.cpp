#include "block/kslock.h"

#include "core/log.h"
#include "sim_test.h"

namespace snbf::sim {
namespace {

constexpr u64 kMs = 1000;

SIM_TEST(KsMutex, IsFreeOnlyAfterAsManyUnlocksAsLocks) {
  KsMutex mutex;
  mutex.init();
  bool entered = false;
  mutex.lock();
  mutex.lock();
  Task* other = sim.spawn("other", [&] {
    mutex.lock();
    entered = true;
    mutex.unlock();
  });
  sim.sleep_us(5 * kMs);
  mutex.unlock();
  sim.sleep_us(5 * kMs);
  EXPECT_FALSE(entered);
  EXPECT_TRUE(mutex.is_mine());
  mutex.unlock();
  EXPECT_FALSE(mutex.is_mine());
  sim.join(other);
  EXPECT_TRUE(entered);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(KsMutex, ATryBySomebodyElseFailsAndOneByItsOwnerCounts) {
  KsMutex mutex;
  mutex.init();
  const auto try_elsewhere = [&] {
    bool got = false;
    sim.join(sim.spawn("other", [&] {
      got = mutex.try_lock();
      if (got) mutex.unlock();
    }));
    return got;
  };
  ASSERT_TRUE(mutex.try_lock());
  ASSERT_TRUE(mutex.try_lock());
  EXPECT_FALSE(try_elsewhere());
  mutex.unlock();
  EXPECT_TRUE(mutex.is_mine());
  EXPECT_FALSE(try_elsewhere());
  mutex.unlock();
  EXPECT_TRUE(try_elsewhere());
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(KsMutex, UnlockOfAFreeOneIsLoggedAndIgnored) {
  KsMutex mutex;
  mutex.init();
  mutex.unlock();
  EXPECT_EQ(sim.log().last(), "ERROR: ksmutex_unlock(): Can't unlock mutex: not owner.");
  mutex.lock();
  EXPECT_TRUE(mutex.is_mine());
  mutex.unlock();
  EXPECT_EQ(sim.log().errors(), 1);
  snbf_debug_destroy();
}

SIM_TEST(KsMutex, UnlockByAnotherTaskIsLoggedAndIgnored) {
  KsMutex mutex;
  mutex.init();
  mutex.lock();
  sim.join(sim.spawn("other", [&] { mutex.unlock(); }));
  EXPECT_EQ(sim.log().count("ksmutex_unlock(): Can't unlock mutex: not owner.", 3), 1);
  EXPECT_TRUE(mutex.is_mine());
  mutex.unlock();
  snbf_debug_destroy();
}

SIM_TEST(KsMutex, OneLeftHeldIsNotInheritedByALaterTask) {
  KsMutex mutex;
  mutex.init();
  plat_task* dead = nullptr;
  sim.join(sim.spawn("holder", [&] {
    dead = Sim::current();
    mutex.lock();
  }));
  for (int i = 0; i < 20; ++i) {
    sim.join(sim.spawn("later", [&] { EXPECT_FALSE(mutex.is_mine()); }));
  }
  snbf_plat_task_put(dead);
}

SIM_TEST_SEEDS(KsMutex, KeepsOthersOut, 30) {
  KsMutex mutex;
  mutex.init();
  int inside = 0;
  int rounds = 0;
  for (int i = 0; i < 4; ++i) {
    sim.spawn("worker", [&] {
      for (int round = 0; round < 5; ++round) {
        KsMutexGuard guard{mutex};
        EXPECT_EQ(++inside, 1);
        sim.sleep_us(sim.random(100));
        --inside;
        ++rounds;
      }
    });
  }
  sim.join_all();
  EXPECT_EQ(rounds, 20);
}

SIM_TEST(KsRwLock, SecondReadUnlockIsLoggedAndLeavesTheCountAtZero) {
  KsRwLock lock;
  lock.init();
  lock.read_lock();
  EXPECT_EQ(lock.count(), 1);
  lock.read_unlock();
  EXPECT_FALSE(sim.log().has_errors());
  lock.read_unlock();
  EXPECT_EQ(sim.log().last(), "ERROR: ksread_unlock(): Can't release RO lock: not locked.");
  EXPECT_EQ(lock.count(), 0);
  snbf_debug_destroy();
}

SIM_TEST(KsRwLock, ReadUnlockOfAWritersLockIsLoggedAndIgnored) {
  KsRwLock lock;
  lock.init();
  lock.write_lock();
  lock.read_unlock();
  EXPECT_EQ(sim.log().count("ksread_unlock(): Can't release RO lock: not locked.", 3), 1);
  EXPECT_EQ(lock.count(), -1);
  lock.write_unlock();
  EXPECT_EQ(lock.count(), 0);
  snbf_debug_destroy();
}

SIM_TEST(KsRwLock, LastReaderLetsAWaitingWriterIn) {
  KsRwLock lock;
  lock.init();
  bool written = false;
  lock.read_lock();
  lock.read_lock();
  Task* writer = sim.spawn("writer", [&] {
    lock.write_lock();
    written = true;
    lock.write_unlock();
  });
  sim.sleep_us(5 * kMs);
  lock.read_unlock();
  sim.sleep_us(5 * kMs);
  EXPECT_FALSE(written);
  lock.read_unlock();
  sim.join(writer);
  EXPECT_TRUE(written);
}

SIM_TEST(KsRwLock, WriteSideIsRecursiveForItsOwner) {
  KsRwLock lock;
  lock.init();
  int others = 0;
  lock.write_lock();
  lock.write_lock();
  EXPECT_EQ(lock.count(), -2);
  sim.spawn("reader", [&] {
    lock.read_lock();
    ++others;
    lock.read_unlock();
  });
  sim.spawn("writer", [&] {
    lock.write_lock();
    ++others;
    lock.write_unlock();
  });
  sim.sleep_us(5 * kMs);
  lock.write_unlock();
  EXPECT_EQ(lock.count(), -1);
  sim.sleep_us(5 * kMs);
  EXPECT_EQ(others, 0);
  lock.write_unlock();
  sim.join_all();
  EXPECT_EQ(others, 2);
  EXPECT_EQ(lock.count(), 0);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(KsRwLock, WriteUnlockByAnotherIsLoggedAndIgnored) {
  KsRwLock lock;
  lock.init();
  lock.write_unlock();
  EXPECT_EQ(sim.log().last(), "ERROR: kswrite_unlock(): Can't release RW lock: not owner.");
  lock.write_lock();
  sim.join(sim.spawn("other", [&] { lock.write_unlock(); }));
  EXPECT_EQ(lock.count(), -1);
  lock.write_unlock();
  lock.read_lock();
  lock.write_unlock();
  EXPECT_EQ(lock.count(), 1);
  lock.read_unlock();
  EXPECT_EQ(sim.log().count("kswrite_unlock(): Can't release RW lock: not owner.", 3), 3);
  snbf_debug_destroy();
}

SIM_TEST(KsRwLock, WaitingWriterHoldsBackNoReader) {
  KsRwLock lock;
  lock.init();
  lock.read_lock();
  Task* writer = sim.spawn("writer", [&] {
    lock.write_lock();
    lock.write_unlock();
  });
  sim.sleep_us(5 * kMs);
  // The writer is in the queue; the present reader may need this one to get on.
  sim.join(sim.spawn("helper", [&] {
    lock.read_lock();
    lock.read_unlock();
  }));
  lock.read_lock();
  lock.read_unlock();
  lock.read_unlock();
  sim.join(writer);
}

// A limit that is no multiple of what the writer waits at a time.
SIM_TEST(KsRwLock, AWriterWithALimitGivesUpThere) {
  KsRwLock lock;
  lock.init();
  lock.read_lock();
  const u64 before = sim.now_us();
  sim.join(sim.spawn("writer", [&] { EXPECT_FALSE(lock.write_lock_within(250)); }));
  EXPECT_GE(sim.now_us() - before, 249 * kMs);
  EXPECT_LE(sim.now_us() - before, 260 * kMs);
  EXPECT_FALSE(lock.has_waiting_writer());
  EXPECT_EQ(lock.count(), 1);
  Task* writer = sim.spawn("writer", [&] {
    EXPECT_TRUE(lock.write_lock_within(250));
    lock.write_unlock();
  });
  sim.sleep_us(150 * kMs);
  EXPECT_TRUE(lock.has_waiting_writer());
  lock.read_unlock();
  sim.join(writer);
  EXPECT_EQ(lock.count(), 0);
}

SIM_TEST_SEEDS(KsRwLock, NoWakeUpIsMissedAndWritersAreAlone, 60) {
  KsRwLock lock;
  lock.init();
  int readers = 0;
  int writers = 0;
  for (int i = 0; i < 3; ++i) {
    sim.spawn("reader", [&] {
      for (int round = 0; round < 6; ++round) {
        KsReadGuard guard{lock};
        ++readers;
        EXPECT_EQ(writers, 0);
        if (sim.random(2) == 0) sim.sleep_us(sim.random(50));
        --readers;
      }
    });
    sim.spawn("writer", [&] {
      for (int round = 0; round < 4; ++round) {
        KsWriteGuard guard{lock};
        EXPECT_EQ(++writers, 1);
        EXPECT_EQ(readers, 0);
        if (sim.random(2) == 0) sim.sleep_us(sim.random(50));
        --writers;
      }
    });
  }
  sim.join_all();
  EXPECT_EQ(lock.count(), 0);
}

SIM_TEST(KsRwLockPause, EndsAtOnceWhenNoWriterWaits) {
  KsRwLock lock;
  lock.init();
  lock.read_lock();
  const u64 before = sim.now_us();
  lock.pause_for_writer();
  EXPECT_LT(sim.now_us() - before, kMs);
  lock.read_unlock();
}

// Counted from when the writer began to wait, so that not every request of a long wait pays.
SIM_TEST(KsRwLockPause, LastsUntilTheWriterHasWaitedTenMilliseconds) {
  KsRwLock lock;
  lock.init();
  lock.read_lock();
  Task* writer = sim.spawn("writer", [&] {
    lock.write_lock();
    lock.write_unlock();
  });
  sim.sleep_us(5 * kMs);
  const u64 before = sim.now_us();
  lock.pause_for_writer();
  const u64 paused = sim.now_us() - before;
  EXPECT_GE(paused, 4 * kMs);
  EXPECT_LE(paused, 7 * kMs);
  const u64 later = sim.now_us();
  lock.pause_for_writer();
  EXPECT_LT(sim.now_us() - later, kMs);
  lock.read_unlock();
  sim.join(writer);
}

SIM_TEST(KsRwLockPause, EndsWhenTheWriterIsThrough) {
  KsRwLock lock;
  lock.init();
  lock.read_lock();
  sim.spawn("writer", [&] {
    lock.write_lock();
    lock.write_unlock();
  });
  sim.sleep_us(5 * kMs);
  u64 paused = 0;
  Task* submitter = sim.spawn("submitter", [&] {
    const u64 before = sim.now_us();
    lock.pause_for_writer();
    paused = sim.now_us() - before;
  });
  sim.sleep_us(3 * kMs);
  lock.read_unlock();
  sim.join(submitter);
  sim.join_all();
  EXPECT_LE(paused, 6 * kMs);
}

}  // namespace
}  // namespace snbf::sim
