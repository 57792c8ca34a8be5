// The scheduler, time and user memory.
#include <algorithm>
#include <set>

#include "platform/memory.h"
#include "platform/sync.h"
#include "platform/task.h"
#include "sim_test.h"

using namespace snbf::sim;

namespace {

// Four tasks that count without a lock: a lost update shows a switch between the load and the
// store.
u64 race(u64 seed, int* counted) {
  Sim sim({.seed = seed});
  int counter = 0;
  for (int i = 0; i < 4; ++i) {
    sim.spawn("counter" + std::to_string(i), [&] {
      for (int round = 0; round < 20; ++round) {
        const int seen = counter;
        sim.point();
        counter = seen + 1;
        sim.point();
      }
    });
  }
  EXPECT_EQ(sim.run(), RunEnd::Done);
  *counted = counter;
  return sim.trace_hash();
}

}  // namespace

TEST(Scheduler, RepeatsARunExactlyWithItsSeed) {
  for (u64 seed = 1; seed < 20; ++seed) {
    int first = 0, second = 0;
    EXPECT_EQ(race(seed, &first), race(seed, &second));
    EXPECT_EQ(first, second);
  }
}

TEST(Scheduler, TriesDifferentOrders) {
  std::set<u64> hashes;
  int lost = 0;
  for (u64 seed = 1; seed <= 100; ++seed) {
    int counted = 0;
    hashes.insert(race(seed, &counted));
    if (counted != 80) ++lost;
  }
  EXPECT_GT(hashes.size(), 40u);
  EXPECT_GT(lost, 10);
}

// The order A1 B1 A2 B2 with B2 before A3: three steps in one order out of many.
TEST(Scheduler, FindsARareOrder) {
  int found = 0;
  for (u64 seed = 1; seed <= 400; ++seed) {
    Sim sim({.seed = seed});
    int state = 0;
    sim.spawn("a", [&] {
      for (int i = 0; i < 10; ++i) sim.point();
      state = 1;
      sim.point();
      if (state == 2) ++found;
      state = 3;
    });
    sim.spawn("b", [&] {
      for (int i = 0; i < 10; ++i) sim.point();
      if (state == 1) state = 2;
    });
    sim.run();
  }
  EXPECT_GT(found, 0);
}

SIM_TEST(Time, IsVirtual) {
  const u64 before = snbf_plat_ticks_ms();
  snbf_plat_sleep_ms(60'000);
  EXPECT_GE(snbf_plat_ticks_ms(), before + 60'000);
  EXPECT_LT(snbf_plat_ticks_ms(), before + 60'100);
}

SIM_TEST(Time, PassesForOneWhoYieldsUntilADeadline) {
  const u64 deadline = snbf_plat_ticks_ms() + 10'000;
  int yields = 0;
  for (; snbf_plat_ticks_ms() < deadline; ++yields) snbf_plat_yield();
  EXPECT_LT(yields, 2'000'000);
}

SIM_TEST(Time, PassesForOneWhoSpinsWhileAnotherHasTheWork) {
  bool done = false;
  sim.spawn("worker", [&] {
    snbf_plat_sleep_ms(3);
    done = true;
  });
  while (!done) sim.point();
}

SIM_TEST(CompletionWait, GivesUpAtItsLimit) {
  plat_completion done;
  snbf_plat_completion_init(&done);
  EXPECT_EQ(snbf_plat_completion_wait_ms(&done, 100), 0);
  sim.interrupt([&] { snbf_plat_complete(&done); }, 50'000);
  EXPECT_EQ(snbf_plat_completion_wait_ms(&done, 100), 1);
}

SIM_TEST(Completion, LetsInOneWaiterEach) {
  plat_completion done;
  snbf_plat_completion_init(&done);
  int through = 0;
  for (int i = 0; i < 3; ++i) {
    sim.spawn("waiter", [&] {
      snbf_plat_completion_wait(&done);
      ++through;
    });
  }
  snbf_plat_complete(&done);
  snbf_plat_sleep_ms(5);
  EXPECT_EQ(through, 1);
  snbf_plat_complete(&done);
  snbf_plat_complete(&done);
  sim.join_all();
}

SIM_TEST(Semaphore, KeepsOthersOut) {
  plat_semaphore sem;
  snbf_plat_sem_init(&sem, 1);
  int inside = 0;
  for (int i = 0; i < 5; ++i) {
    sim.spawn("user", [&] {
      snbf_plat_sem_down(&sem);
      EXPECT_EQ(++inside, 1);
      snbf_plat_yield();
      snbf_plat_sleep_ms(1);
      --inside;
      snbf_plat_sem_up(&sem);
    });
  }
  sim.join_all();
}

SIM_TEST(SpinLock, KeepsOthersOutInterruptsIncluded) {
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  int inside = 0;
  int ended = 0;
  auto once = [&] {
    const unsigned long state = snbf_plat_spin_lock_irqsave(&lock);
    EXPECT_EQ(++inside, 1);
    for (int i = 0; i < 5; ++i) sim.point();
    --inside;
    ++ended;
    snbf_plat_spin_unlock_irqrestore(&lock, state);
  };
  for (int i = 0; i < 4; ++i) sim.spawn("user", once);
  for (u32 i = 0; i < 4; ++i) sim.interrupt(once, i * 7);
  sim.wait_until([&] { return ended == 8; });
  sim.sleep_us(100);
}

// One who waits may be what another waits for, and stop nowhere before it waits again.
SIM_TEST_SEEDS(WaitUntil, SeesWhatAnotherWaiterDoes, 20) {
  bool begun = false, first_is_done = false, second_is_done = false;
  sim.spawn("second", [&] {
    sim.wait_until([&] { return first_is_done; });
    second_is_done = true;
  });
  sim.spawn("first", [&] {
    sim.wait_until([&] { return begun; });
    first_is_done = true;
    sim.wait_until([&] { return second_is_done; });
  });
  sim.sleep_us(100);
  begun = true;
  sim.join_all();
}

SIM_TEST_SEEDS(WaitQueue, LosesNoWakeUp, 60) {
  plat_waitq queue;
  snbf_plat_waitq_init(&queue);
  int ready = 0;
  Task* waiter = sim.spawn("waiter", [&] {
    plat_wait_entry entry = {};
    for (;;) {
      snbf_plat_wait_prepare(&queue, &entry, 0);
      if (ready == 3) break;
      snbf_plat_wait_sleep();
    }
    snbf_plat_wait_finish(&queue, &entry);
  });
  for (int i = 0; i < 3; ++i) {
    sim.interrupt([&] {
      ++ready;
      snbf_plat_wake(&queue);
    });
  }
  sim.join(waiter);
}

SIM_TEST(WaitQueue, SleepWithALimitEndsByItself) {
  plat_waitq queue;
  plat_wait_entry entry = {};
  snbf_plat_waitq_init(&queue);
  snbf_plat_wait_prepare(&queue, &entry, 1);
  const u64 before = snbf_plat_ticks_ms();
  snbf_plat_wait_sleep_ms(10);
  EXPECT_GE(snbf_plat_ticks_ms(), before + 10);
  snbf_plat_wait_finish(&queue, &entry);
}

SIM_TEST(Interrupt, IsKnownAsOne) {
  EXPECT_EQ(snbf_plat_in_interrupt(), 0);
  int inside = 0;
  sim.in_interrupt([&] { inside = snbf_plat_in_interrupt(); });
  EXPECT_EQ(inside, 1);
}

SIM_TEST(Task, HasTheNameAndNumberItWasGiven) {
  sim.join(sim.spawn(
      "a name that is far too long",
      [] {
        char name[PLAT_TASK_NAME_BYTES];
        snbf_plat_task_name(name);
        EXPECT_STREQ(name, "a name that is ");
        EXPECT_EQ(snbf_plat_task_pid(), 7);
      },
      7));
}

SIM_TEST(UserMemory, CopiesUpToTheFault) {
  UserBuffer buffer = sim.user(Bytes(8192, 9));
  buffer.fault_at(5000);
  Bytes kernel_side(8192);
  EXPECT_EQ(snbf_plat_copy_from_user(kernel_side.data(), buffer.address(), 8192), 8192u - 5000u);
  EXPECT_EQ(kernel_side[4999], 9);
  EXPECT_EQ(kernel_side[5000], 0);
  EXPECT_EQ(snbf_plat_copy_from_user(kernel_side.data(), Sim::kBadUserAddress, 8), 8u);
  EXPECT_EQ(snbf_plat_user_range_ok(buffer.address(), 8192), 1);
  EXPECT_EQ(snbf_plat_user_range_ok(~0ull - 5, 100), 0);
}

SIM_TEST(UserMemory, CanBeReadOnlyAndUnmapped) {
  UserBuffer buffer = sim.user(16);
  buffer.make_read_only();
  EXPECT_EQ(snbf_plat_copy_to_user(buffer.address(), "abc", 3), 3u);
  buffer.unmap();
  char byte;
  EXPECT_EQ(snbf_plat_copy_from_user(&byte, buffer.address(), 1), 1u);
}

SIM_TEST(UserPin, TakesAPrefixAndWorksUnderASpinLock) {
  UserBuffer buffer = sim.user(3 * 4096);
  buffer.untouch();
  buffer.fault_at(2 * 4096);
  plat_user_pin* pin = snbf_plat_user_pin(buffer.address(), buffer.size(), 1);
  ASSERT_NE(pin, nullptr);
  EXPECT_EQ(snbf_plat_user_pinned_bytes(pin), 2u * 4096u);
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  snbf_plat_spin_lock(&lock);
  snbf_plat_user_pin_write(pin, 4095, "ab", 2);
  char back[2];
  snbf_plat_user_pin_read(pin, 4095, back, 2);
  snbf_plat_spin_unlock(&lock);
  EXPECT_EQ(back[1], 'b');
  snbf_plat_user_unpin(pin);
  EXPECT_EQ(buffer.bytes()[4096], 'b');
}

SIM_TEST(Faults, StrikeTheCallAskedForAndNoOther) {
  sim.fail_nth(Fault::Heap, 2);
  void* first = snbf_plat_heap_alloc(8, PLAT_ALLOC_NORMAL);
  EXPECT_FALSE(sim.fault_reached(Fault::Heap));
  EXPECT_EQ(snbf_plat_heap_alloc(8, PLAT_ALLOC_NORMAL), nullptr);
  EXPECT_TRUE(sim.fault_reached(Fault::Heap));
  void* third = snbf_plat_heap_alloc(8, PLAT_ALLOC_NORMAL);
  EXPECT_NE(third, nullptr);
  snbf_plat_heap_free(first);
  snbf_plat_heap_free(third);
  int calls = 0;
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    ++calls;
                    void* a = snbf_plat_heap_alloc(8, PLAT_ALLOC_NORMAL);
                    void* b = snbf_plat_page_alloc(PLAT_ALLOC_NORMAL);
                    snbf_plat_heap_free(a);
                    snbf_plat_page_free(b);
                  });
       ++nth) {
  }
  EXPECT_EQ(nth, 3);
  EXPECT_EQ(calls, 3);
}
