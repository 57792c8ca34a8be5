// Each rule of the simulated kernel, seen firing.
#include <cstring>

#include "fiber.h"

#include "platform/block.h"
#include "platform/control.h"
#include "platform/disk.h"
#include "platform/file.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "platform/sync.h"
#include "platform/task.h"
#include "sim_test.h"

using namespace snbf::sim;

namespace {

void* block() { return snbf_plat_heap_alloc(64, PLAT_ALLOC_NORMAL); }

}  // namespace

SIM_TEST(Sleeping, WithASpinLockHeldEndsTheRun) {
  sim.expect_fatal("sleep_ms() sleeps with the spin lock 'guard' held");
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  snbf_plat_spin_lock(&lock);
  snbf_plat_sleep_ms(1);
}

SIM_TEST(Sleeping, InAnInterruptEndsTheRun) {
  sim.expect_fatal("page_alloc() sleeps in an interrupt");
  sim.in_interrupt([] { snbf_plat_page_alloc(PLAT_ALLOC_NOIO); });
}

SIM_TEST(Sleeping, WithASleepingAllocationUnderALockEndsTheRun) {
  sim.expect_fatal("heap_alloc() sleeps with the spin lock");
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  const unsigned long state = snbf_plat_spin_lock_irqsave(&lock);
  snbf_plat_heap_alloc(8, PLAT_ALLOC_NORMAL);
  snbf_plat_spin_unlock_irqrestore(&lock, state);
}

SIM_TEST(Sleeping, IsFineForAtomicAllocations) {
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  snbf_plat_spin_lock(&lock);
  void* memory = snbf_plat_heap_alloc(8, PLAT_ALLOC_ATOMIC);
  snbf_plat_spin_unlock(&lock);
  EXPECT_NE(memory, nullptr);
  snbf_plat_heap_free(memory);
}

SIM_TEST(SpinLock, TakenAgainByItsHolderEndsTheRun) {
  sim.expect_fatal("the spin lock 'guard' is taken again by its holder");
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  snbf_plat_spin_lock(&lock);
  snbf_plat_spin_lock(&lock);
}

SIM_TEST(SpinLock, NotInitialisedEndsTheRun) {
  sim.expect_fatal("never initialised");
  plat_spin lock = {};
  snbf_plat_spin_lock(&lock);
}

SIM_TEST(SpinLock, ReleasedByAnotherTaskEndsTheRun) {
  sim.expect_fatal("is not held here");
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  snbf_plat_spin_unlock(&lock);
}

SIM_TEST(SpinLock, PlainInAnInterruptEndsTheRun) {
  sim.expect_fatal("the plain spin lock 'guard' is taken in an interrupt");
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  sim.in_interrupt([&] { snbf_plat_spin_lock(&lock); });
}

SIM_TEST(SpinLock, PlainHereAndInAnInterruptElsewhereEndsTheRun) {
  sim.expect_fatal("is taken in interrupts and here with interrupts on");
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  sim.in_interrupt([&] {
    const unsigned long state = snbf_plat_spin_lock_irqsave(&lock);
    snbf_plat_spin_unlock_irqrestore(&lock, state);
  });
  snbf_plat_spin_lock(&lock);
}

SIM_TEST(SpinLock, RestoredInTheWrongOrderEndsTheRun) {
  sim.expect_fatal("restores a state that is not the one its lock answered");
  plat_spin a, b;
  snbf_plat_spin_init(&a, "a");
  snbf_plat_spin_init(&b, "b");
  const unsigned long state_a = snbf_plat_spin_lock_irqsave(&a);
  snbf_plat_spin_lock_irqsave(&b);
  snbf_plat_spin_unlock_irqrestore(&b, state_a);
}

SIM_TEST(SpinLock, HeldByAnEndingTaskEndsTheRun) {
  sim.expect_fatal("ends with the spin lock 'guard' held");
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  sim.join(sim.spawn("careless", [&] { snbf_plat_spin_lock(&lock); }));
}

SIM_TEST(Memory, FreedTwiceEndsTheRun) {
  sim.expect_fatal("that was freed before");
  void* memory = block();
  snbf_plat_heap_free(memory);
  snbf_plat_heap_free(memory);
}

SIM_TEST(Memory, FreedAsAnotherKindEndsTheRun) {
  sim.expect_fatal("heap_free() of a page");
  snbf_plat_heap_free(snbf_plat_page_alloc(PLAT_ALLOC_NORMAL));
}

SIM_TEST(Memory, FreedWithoutHavingBeenAllocatedEndsTheRun) {
  sim.expect_fatal("which was never allocated");
  int local = 0;
  snbf_plat_heap_free(&local);
}

SIM_TEST(Memory, LeftOverEndsTheRun) {
  sim.expect_fatal("left over at the end of the test");
  EXPECT_NE(block(), nullptr);
}

SIM_TEST(Memory, FreedWhileSomebodyWaitsInItEndsTheRun) {
  sim.expect_fatal("waits for a completion");
  auto* done = static_cast<plat_completion*>(
      snbf_plat_heap_alloc(sizeof(plat_completion), PLAT_ALLOC_NORMAL));
  snbf_plat_completion_init(done);
  sim.spawn("waiter", [&] { snbf_plat_completion_wait(done); });
  sim.sleep_us(1000);
  snbf_plat_heap_free(done);
}

SIM_TEST(Memory, FreedWithItsLockHeldEndsTheRun) {
  sim.expect_fatal("of memory with the spin lock 'guard'");
  auto* lock = static_cast<plat_spin*>(snbf_plat_heap_alloc(sizeof(plat_spin), PLAT_ALLOC_NORMAL));
  snbf_plat_spin_init(lock, "guard");
  snbf_plat_spin_lock(lock);
  snbf_plat_heap_free(lock);
}

#if !SNBF_SIM_ASAN
SIM_TEST(Memory, WrittenBehindItsEndEndsTheRun) {
  sim.expect_fatal("somebody wrote before or behind a heap block of 64 bytes");
  auto* memory = static_cast<volatile char*>(block());
  memory[64] = 1;
  snbf_plat_heap_free(const_cast<char*>(memory));
}

SIM_TEST(Memory, WrittenAfterItsFreeEndsTheRun) {
  sim.expect_fatal("was written to after its free");
  auto* memory = static_cast<volatile char*>(block());
  snbf_plat_heap_free(const_cast<char*>(memory));
  memory[3] = 1;
  for (int i = 0; i < 25'000; ++i) snbf_plat_heap_free(block());
}
#endif

SIM_TEST(Memory, IsPoisonedWhenFreshAndZeroOnlyWhereItIsPromised) {
  auto* memory = static_cast<unsigned char*>(block());
  EXPECT_NE(memory[0], 0);
  auto* area = static_cast<unsigned char*>(snbf_plat_virt_alloc(5000));
  EXPECT_EQ(area[0] | area[4999], 0);
  snbf_plat_virt_free(area);
  snbf_plat_heap_free(memory);
}

SIM_TEST(Cache, DestroyedWithObjectsEndsTheRun) {
  sim.expect_fatal("with a pool over it");
  plat_cache* cache = snbf_plat_cache_create("things", 40);
  snbf_plat_pool_create(2, cache);
  snbf_plat_cache_destroy(cache);
}

SIM_TEST(Pool, DestroyedWithObjectsOutEndsTheRun) {
  sim.expect_fatal("with 1 objects not given back");
  plat_cache* cache = snbf_plat_cache_create("things", 40);
  plat_pool* pool = snbf_plat_pool_create(2, cache);
  snbf_plat_pool_alloc(pool, PLAT_ALLOC_NOIO);
  snbf_plat_pool_destroy(pool);
}

SIM_TEST(Pool, GivesItsReserveAndThenWaitsUntilOneComesBack) {
  plat_cache* cache = snbf_plat_cache_create("things", 40);
  plat_pool* pool = snbf_plat_pool_create(2, cache);
  sim.set_memory_pressure(true);
  void* first = snbf_plat_pool_alloc(pool, PLAT_ALLOC_NOIO);
  void* second = snbf_plat_pool_alloc(pool, PLAT_ALLOC_ATOMIC);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(snbf_plat_pool_alloc(pool, PLAT_ALLOC_ATOMIC), nullptr);
  EXPECT_EQ(snbf_plat_pool_try_alloc(pool, PLAT_ALLOC_NOIO), nullptr);
  bool given_back = false;
  Task* waiter = sim.spawn("waiter", [&] {
    void* third = snbf_plat_pool_alloc(pool, PLAT_ALLOC_NOIO);
    EXPECT_TRUE(given_back);
    snbf_plat_pool_free(pool, third);
  });
  snbf_plat_sleep_ms(5);
  given_back = true;
  snbf_plat_pool_free(pool, first);
  sim.join(waiter);
  snbf_plat_pool_free(pool, second);
  snbf_plat_pool_destroy(pool);
  snbf_plat_cache_destroy(cache);
}

SIM_TEST(Pool, ThatNobodyRefillsIsADeadlock) {
  sim.expect_fatal("waits for an object of the pool 'things'");
  plat_cache* cache = snbf_plat_cache_create("things", 40);
  plat_pool* pool = snbf_plat_pool_create(1, cache);
  sim.set_memory_pressure(true);
  snbf_plat_pool_alloc(pool, PLAT_ALLOC_NOIO);
  snbf_plat_pool_alloc(pool, PLAT_ALLOC_NOIO);
}

SIM_TEST(Deadlock, OfTwoSemaphoresNamesBothTasks) {
  sim.expect_fatal("deadlock");
  plat_semaphore a, b;
  snbf_plat_sem_init(&a, 1);
  snbf_plat_sem_init(&b, 1);
  auto cross = [](plat_semaphore* first, plat_semaphore* second) {
    snbf_plat_sem_down(first);
    snbf_plat_sleep_ms(1);
    snbf_plat_sem_down(second);
  };
  sim.spawn("left", [&] { cross(&a, &b); });
  sim.join(sim.spawn("right", [&] { cross(&b, &a); }));
}

TEST(Deadlock, TellsWhoWaitsForWhom) {
  Sim sim({.seed = 1});
  sim.expect_fatal("deadlock");
  plat_semaphore only;
  EXPECT_EQ(sim.run([&] {
    snbf_plat_sem_init(&only, 1);
    snbf_plat_sem_down(&only);
    sim.join(sim.spawn("second", [&] { snbf_plat_sem_down(&only); }));
  }),
            RunEnd::Fatal);
  EXPECT_NE(
      sim.fatal_message().find("task 'second' (pid 201) waits for the semaphore , held by 'test'"),
      std::string::npos)
      << sim.fatal_message();
}

SIM_TEST(WaitQueue, SleepWithoutPrepareEndsTheRun) {
  sim.expect_fatal("without wait_prepare");
  snbf_plat_wait_sleep();
}

SIM_TEST(Thread, ThatReturnsEndsTheRun) {
  sim.expect_fatal("returns from its body");
  snbf_plat_thread_start(
      "kcareless", [](void*) {}, nullptr);
  snbf_plat_sleep_ms(10);
}

SIM_TEST(Thread, LeftOverEndsTheRun) {
  sim.expect_fatal("the thread 'kforgotten'");
  static plat_completion never;
  snbf_plat_completion_init(&never);
  snbf_plat_thread_start(
      "kforgotten", [](void*) { snbf_plat_completion_wait(&never); }, nullptr);
}

SIM_TEST(Thread, HasDoneAllOfItsWorkWhenItsExitIsSeen) {
  static plat_completion gone;
  static int steps;
  steps = 0;
  snbf_plat_completion_init(&gone);
  EXPECT_GT(snbf_plat_thread_start(
                "kworker",
                [](void*) {
                  for (; steps < 10; ++steps) snbf_plat_yield();
                  snbf_plat_thread_exit(&gone);
                },
                nullptr),
            0);
  snbf_plat_completion_wait(&gone);
  EXPECT_EQ(steps, 10);
}

// Frames are larger with sanitizers, and stacks with them: the depth is kept by the plain build.
#if !SNBF_SIM_ASAN
SIM_TEST(Stack, TooDeepUseByTheDriverEndsTheRun) {
  sim.expect_fatal("of the 16384 that a kernel thread has");
  snbf_plat_thread_start(
      "kdeep",
      [](void*) {
        char big[17'000];
        asm volatile("" : : "r"(big) : "memory");  // it must really be there
        snbf_plat_sleep_ms(1);
        snbf_plat_thread_exit(nullptr);
      },
      nullptr);
  snbf_plat_sleep_ms(10);
}
#endif

SIM_TEST(Task, ReferenceDroppedTwiceEndsTheRun) {
  sim.expect_fatal("task_put() without task_get()");
  snbf_plat_task_put(snbf_plat_task_current());
}

SIM_TEST(Task, AddressComesBackOnlyWithoutAReference) {
  static plat_task* seen;
  static plat_completion gone;
  static bool keep;
  auto run_one = [&]() {
    snbf_plat_completion_init(&gone);
    snbf_plat_thread_start(
        "kone",
        [](void*) {
          seen = snbf_plat_task_current();
          if (keep) snbf_plat_task_get(seen);
          snbf_plat_thread_exit(&gone);
        },
        nullptr);
    snbf_plat_completion_wait(&gone);
    return seen;
  };
  keep = false;
  plat_task* first = run_one();
  keep = true;
  EXPECT_EQ(run_one(), first);
  keep = false;
  EXPECT_NE(run_one(), first);
  snbf_plat_task_put(first);
  EXPECT_EQ(run_one(), first);
}

SIM_TEST(Noio, LeftOpenEndsTheRun) {
  sim.expect_fatal("ends between noio_begin and noio_end");
  sim.join(sim.spawn("careless", [] { snbf_plat_noio_begin(); }));
}

SIM_TEST(Module, ReferenceLeftOverEndsTheRun) {
  sim.expect_fatal("1 references on the module");
  EXPECT_EQ(snbf_plat_module_get(), 1);
}

SIM_TEST(Module, GivesNoReferenceWhileItGoes) {
  sim.set_module_going(true);
  EXPECT_EQ(snbf_plat_module_get(), 0);
}

SIM_TEST(Bug, EndsTheRunWithItsPlace) {
  sim.expect_fatal("BUG at here.cpp:7: it holds");
  snbf_plat_bug("here.cpp", 7, "it holds");
}

SIM_TEST(Circles, EndTheRun) {
  sim.expect_fatal("goes round in circles");
  sim.set_step_limit(100'000);
  for (;;) snbf_plat_yield();
}

SIM_TEST(File, LeftOpenEndsTheRun) {
  sim.expect_fatal("the open file /tmp/x");
  plat_file* file = nullptr;
  EXPECT_EQ(snbf_plat_file_open("/tmp/x", PLAT_O_RDWR | PLAT_O_CREAT, 0600, &file), 0);
}

SIM_TEST(Path, LeftOverEndsTheRun) {
  sim.expect_fatal("a reference to the path /tmp");
  plat_path* path = nullptr;
  EXPECT_EQ(snbf_plat_path_lookup("/tmp", 1, &path), 0);
}

SIM_TEST(Parent, UsedBeforeItsChildIsLookedUpEndsTheRun) {
  sim.expect_fatal("before parent_child()");
  plat_parent* parent = nullptr;
  EXPECT_EQ(snbf_plat_parent_lock("/tmp/x", &parent), 0);
  snbf_plat_parent_mknod(parent, PLAT_S_IFBLK | 0600, dev(1, 2));
}

SIM_TEST(UserMemory, CopiedUnderASpinLockWithoutAPinEndsTheRun) {
  sim.expect_fatal("copy_to_user() sleeps with the spin lock");
  UserBuffer buffer = sim.user(100);
  plat_spin lock;
  snbf_plat_spin_init(&lock, "guard");
  snbf_plat_spin_lock(&lock);
  snbf_plat_copy_to_user(buffer.address(), "x", 1);
}

SIM_TEST(UserPin, UsedBeyondItsEndEndsTheRun) {
  sim.expect_fatal("but only 4096 are pinned");
  UserBuffer buffer = sim.user(3 * 4096);
  sim.set_pin_limit(1);
  plat_user_pin* pin = snbf_plat_user_pin(buffer.address(), buffer.size(), 1);
  snbf_plat_user_pin_write(pin, 4096, "x", 1);
}

SIM_TEST(UserPin, ForReadingIsNotWritten) {
  sim.expect_fatal("taken for reading");
  UserBuffer buffer = sim.user(4096);
  plat_user_pin* pin = snbf_plat_user_pin(buffer.address(), buffer.size(), 0);
  snbf_plat_user_pin_write(pin, 0, "x", 1);
}
