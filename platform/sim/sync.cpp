// Spin locks, semaphores, wait queues, completions. Several fibers run "at once", so a spin lock
// can be contended: its waiter is blocked, but never counts as asleep.
#include "platform/sync.h"

#include "kernel.h"

namespace {

using snbf::sim::enter;
using snbf::sim::enter_sleeping;
using snbf::sim::Kernel;
using snbf::sim::s64;
using snbf::sim::u64;

constexpr u64 kSpinMagic = snbf::sim::kMagic + 1;
constexpr u64 kSemMagic = snbf::sim::kMagic + 2;
constexpr u64 kQueueMagic = snbf::sim::kMagic + 3;
constexpr u64 kEntryMagic = snbf::sim::kMagic + 4;
constexpr u64 kCompletionMagic = snbf::sim::kMagic + 5;
constexpr unsigned long kIrqToken = 0x5A5A0000;

template <typename State, typename Storage>
State& state_of(Storage* storage, u64 magic, const char* call) {
  auto* state = reinterpret_cast<State*>(storage);
  if (state->magic != magic) {
    snbf::sim::kernel().fatal("%s() on %p, which was never initialised or is gone", call,
                              static_cast<void*>(storage));
  }
  return *state;
}

void take(Kernel& k, SpinState& spin) {
  plat_task* me = k.current;
  if (spin.owner == me) k.fatal("the spin lock '%s' is taken again by its holder", spin.name);
  while (spin.owner != nullptr) {
    k.wait_on(spin.waiters);
    k.block("the spin lock", &spin, spin.name, spin.owner);
  }
  spin.owner = me;
  me->spins.push_back(&spin);
}

void give(Kernel& k, SpinState& spin, const char* call) {
  plat_task* me = k.current;
  if (spin.owner != me) k.fatal("%s(): the spin lock '%s' is not held here", call, spin.name);
  for (auto at = me->spins.begin(); at != me->spins.end(); ++at) {
    if (*at != &spin) continue;
    me->spins.erase(at);
    break;
  }
  spin.owner = nullptr;
  k.wake_all(spin.waiters);
}

void unlink_entry(WaitqState& queue, WaitEntryState& entry) {
  (entry.prev != nullptr ? entry.prev->next : queue.head) = entry.next;
  (entry.next != nullptr ? entry.next->prev : queue.tail) = entry.prev;
  entry.next = entry.prev = nullptr;
  entry.queue = nullptr;
}

void wait_sleep(const char* call, s64 limit_us) {
  Kernel& k = enter_sleeping(call);
  plat_task* me = k.current;
  if (!me->prepared) k.fatal("%s() without wait_prepare since the last sleep", call);
  k.flush_plug(me);
  if (!me->woken) {
    k.block(me->idle_sleep ? "work (idle)" : "a wake-up", me->wait_queue, nullptr, nullptr,
            limit_us);
  }
  me->prepared = false;
}

}  // namespace

extern "C" {

void snbf_plat_spin_init(plat_spin* lock, const char* name) {
  auto* spin = reinterpret_cast<SpinState*>(lock);
  // What the storage held before may be anything: only a holder's own list tells.
  if (Kernel* k = snbf::sim::kernel_or_null(); k != nullptr && k->current != nullptr) {
    for (const plat_task* task : k->tasks) {
      for (const SpinState* held : task->spins) {
        if (held == spin) k->fatal("spin_init() on the spin lock '%s', which is held", spin->name);
      }
    }
  }
  *spin = SpinState{kSpinMagic, name, nullptr, {}, 0, 0};
}

void snbf_plat_spin_lock(plat_spin* lock) {
  Kernel& k = enter("spin_lock");
  auto& spin = state_of<SpinState>(lock, kSpinMagic, "spin_lock");
  if (k.in_interrupt()) k.fatal("the plain spin lock '%s' is taken in an interrupt", spin.name);
  if (spin.in_irq != 0) {
    k.fatal("the spin lock '%s' is taken in interrupts and here with interrupts on", spin.name);
  }
  spin.plain = 1;
  take(k, spin);
}

void snbf_plat_spin_unlock(plat_spin* lock) {
  Kernel& k = enter("spin_unlock");
  give(k, state_of<SpinState>(lock, kSpinMagic, "spin_unlock"), "spin_unlock");
}

unsigned long snbf_plat_spin_lock_irqsave(plat_spin* lock) {
  Kernel& k = enter("spin_lock_irqsave");
  auto& spin = state_of<SpinState>(lock, kSpinMagic, "spin_lock_irqsave");
  if (k.in_interrupt()) {
    if (spin.plain != 0) {
      k.fatal("the spin lock '%s' is taken in an interrupt and elsewhere with interrupts on",
              spin.name);
    }
    spin.in_irq = 1;
  }
  take(k, spin);
  return kIrqToken + static_cast<unsigned long>(k.current->irqs_off++);
}

void snbf_plat_spin_unlock_irqrestore(plat_spin* lock, unsigned long state) {
  Kernel& k = enter("spin_unlock_irqrestore");
  auto& spin = state_of<SpinState>(lock, kSpinMagic, "spin_unlock_irqrestore");
  give(k, spin, "spin_unlock_irqrestore");
  if (state != kIrqToken + static_cast<unsigned long>(k.current->irqs_off - 1)) {
    k.fatal(
        "spin_unlock_irqrestore() of '%s' restores a state that is not the one its lock answered",
        spin.name);
  }
  --k.current->irqs_off;
}

void snbf_plat_sem_init(plat_semaphore* sem, int count) {
  *reinterpret_cast<SemState*>(sem) = SemState{kSemMagic, count, {}, nullptr};
}

void snbf_plat_sem_down(plat_semaphore* sem) {
  Kernel& k = enter_sleeping("sem_down");
  auto& state = state_of<SemState>(sem, kSemMagic, "sem_down");
  while (state.count <= 0) {
    k.sleep_in(state.waiters, "the semaphore", &state, nullptr, state.last);
  }
  --state.count;
  state.last = k.current;
}

int snbf_plat_sem_try_down(plat_semaphore* sem) {
  Kernel& k = enter("sem_try_down");
  auto& state = state_of<SemState>(sem, kSemMagic, "sem_try_down");
  if (state.count <= 0) return 0;
  --state.count;
  state.last = k.current;
  return 1;
}

void snbf_plat_sem_up(plat_semaphore* sem) {
  Kernel& k = enter("sem_up");
  auto& state = state_of<SemState>(sem, kSemMagic, "sem_up");
  ++state.count;
  state.last = nullptr;
  k.wake_one(state.waiters);
}

void snbf_plat_waitq_init(plat_waitq* queue) {
  *reinterpret_cast<WaitqState*>(queue) = WaitqState{kQueueMagic, nullptr, nullptr};
}

void snbf_plat_wait_prepare(plat_waitq* queue, plat_wait_entry* storage, int interruptible) {
  Kernel& k = enter("wait_prepare");
  if (k.in_interrupt()) k.fatal("wait_prepare() in an interrupt");
  auto& state = state_of<WaitqState>(queue, kQueueMagic, "wait_prepare");
  auto* entry = reinterpret_cast<WaitEntryState*>(storage);
  if (entry->magic == kEntryMagic && entry->queue != nullptr && entry->queue != &state) {
    k.fatal("wait_prepare() of an entry that is in another queue");
  }
  if (entry->magic != kEntryMagic || entry->queue == nullptr) {
    *entry = WaitEntryState{kEntryMagic, nullptr, state.tail, k.current, &state};
    (state.tail != nullptr ? state.tail->next : state.head) = entry;
    state.tail = entry;
  }
  k.current->prepared = true;
  k.current->woken = false;
  k.current->idle_sleep = interruptible;
  k.current->wait_queue = &state;
}

void snbf_plat_wait_sleep(void) { wait_sleep("wait_sleep", -1); }

void snbf_plat_wait_sleep_ms(plat_u32 limit_ms) {
  wait_sleep("wait_sleep_ms", s64{1000} * limit_ms);
}

void snbf_plat_wait_finish(plat_waitq* queue, plat_wait_entry* storage) {
  Kernel& k = enter("wait_finish");
  auto& state = state_of<WaitqState>(queue, kQueueMagic, "wait_finish");
  auto* entry = reinterpret_cast<WaitEntryState*>(storage);
  if (entry->magic != kEntryMagic) k.fatal("wait_finish() of an entry that was never prepared");
  if (entry->queue != nullptr && entry->queue != &state) {
    k.fatal("wait_finish() of an entry that is in another queue");
  }
  if (entry->queue != nullptr) unlink_entry(state, *entry);
  entry->magic = 0;
  k.current->prepared = false;
  k.current->woken = false;
}

void snbf_plat_wake(plat_waitq* queue) {
  Kernel& k = enter("wake");
  auto& state = state_of<WaitqState>(queue, kQueueMagic, "wake");
  for (WaitEntryState* entry = state.head; entry != nullptr; entry = entry->next) {
    plat_task* task = entry->task;
    if (!task->prepared || task->wait_queue != &state) continue;
    task->woken = true;
    if (task->state == plat_task::State::Blocked && task->wait_object == &state) k.wake(task);
  }
}

void snbf_plat_completion_init(plat_completion* completion) {
  *reinterpret_cast<CompletionState*>(completion) = CompletionState{kCompletionMagic, 0, {}};
}

void snbf_plat_complete(plat_completion* completion) {
  Kernel& k = enter("complete");
  auto& state = state_of<CompletionState>(completion, kCompletionMagic, "complete");
  ++state.done;
  k.wake_one(state.waiters);
}

void snbf_plat_completion_wait(plat_completion* completion) {
  Kernel& k = enter_sleeping("completion_wait");
  auto& state = state_of<CompletionState>(completion, kCompletionMagic, "completion_wait");
  while (state.done == 0) k.sleep_in(state.waiters, "a completion", &state, nullptr);
  --state.done;
}

int snbf_plat_completion_wait_ms(plat_completion* completion, plat_u32 limit_ms) {
  Kernel& k = enter_sleeping("completion_wait_ms");
  auto& state = state_of<CompletionState>(completion, kCompletionMagic, "completion_wait_ms");
  const u64 deadline = k.now_us() + u64{1000} * limit_ms;
  k.flush_plug(k.current);
  while (state.done == 0) {
    const u64 now = k.now_us();
    if (now >= deadline) return 0;
    k.wait_on(state.waiters);
    if (!k.block("a completion", &state, nullptr, nullptr, static_cast<s64>(deadline - now))) {
      k.remove_waiter(state.waiters, k.current);
    }
  }
  --state.done;
  return 1;
}
}
