// Tasks, time and the scheduler.
//
// Every task has a random priority; the highest that can run does. At a few random steps of a run
// the running task's priority falls below all others: rare orders need few such changes, and are
// found far sooner than by tossing a coin at every step. Steps are microseconds; when nobody can
// run, time jumps to the next event. Interrupts are fibers too, as if on another processor: they
// may not sleep, and preempt or are preempted.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "block_dev.h"
#include "files.h"
#include "kernel.h"
#include "memory_state.h"
#include "proc_state.h"

namespace snbf::sim {

namespace {

Kernel* g_kernel = nullptr;

constexpr u64 kHighPriority = 1ull << 40;
// A task that loops without giving up the processor must let the others on in the end.
constexpr u64 kSliceSteps = 20'000;
// After the last foreground task: what may still run before the run counts as over.
constexpr u64 kDrainSteps = 100'000;

bool later(const Event& a, const Event& b) {
  return a.time_us != b.time_us ? a.time_us > b.time_us : a.order > b.order;
}

void fiber_entry() {
  Kernel& k = *g_kernel;
  begin_fiber(k.main);
  k.task_body();
  abort();
}

}  // namespace

Kernel& kernel() {
  if (g_kernel == nullptr) {
    fprintf(stderr, "snbf sim: a platform call without a Sim\n");
    abort();
  }
  return *g_kernel;
}

Kernel* kernel_or_null() { return g_kernel; }

Kernel& enter(const char* call) {
  Kernel& k = kernel();
  if (k.current == nullptr) {
    fprintf(stderr,
            "snbf sim: %s() is called from outside of a task; run it in Sim::run or spawn\n", call);
    abort();
  }
  k.point();
  return k;
}

Kernel& enter_sleeping(const char* call) {
  Kernel& k = kernel();
  if (k.current != nullptr) k.might_sleep(call);
  return enter(call);
}

Kernel::Kernel(Sim& owner, const Options& opts)
    : sim(owner),
      options(opts),
      sched_rng{opts.seed * 3 + 1},
      io_rng{opts.seed * 3 + 2},
      test_rng{opts.seed * 3 + 3} {
  if (g_kernel != nullptr) {
    fprintf(stderr, "snbf sim: one Sim at a time\n");
    abort();
  }
  g_kernel = this;
  constexpr u64 means[] = {25, 120, 600, 3'000, 30'000};
  change_mean = means[sched_rng.below(5)];
  change_at = 1 + sched_rng.below(2 * change_mean);
  low_priority = kHighPriority - 1;
  memory = std::make_unique<MemoryState>();
  block_state = std::make_unique<BlockState>();
  files = std::make_unique<FilesState>();
  proc = std::make_unique<ProcState>();
  control = std::make_unique<ControlState>();
}

Kernel::~Kernel() {
  for (auto& task : task_storage) task->fiber.destroy();
  files.reset();
  block_state.reset();
  g_kernel = nullptr;
}

// ---- Tasks

Task* Kernel::new_task(const std::string& name, std::function<void()> body, int pid) {
  Task* task;
  if (!spare_tasks.empty()) {
    // The latest to die comes back first: whoever still compares with it is fooled at once.
    task = spare_tasks.back();
    spare_tasks.pop_back();
    const u64 timer = task->timer;
    *task = Task();
    task->timer = timer + 1;
  } else {
    task_storage.push_back(std::make_unique<Task>());
    task = task_storage.back().get();
  }
  task->id = next_task++;
  task->pid = pid != 0 ? pid : next_pid++;
  snprintf(task->name, sizeof(task->name), "%s", name.c_str());
  task->priority = kHighPriority + (sched_rng.next() & 0xFFFFFFFF);
  task->body = std::move(body);
  task->fiber.create(fiber_entry);
  tasks.push_back(task);
  next_stop = 0;
  return task;
}

void Kernel::task_body() {
  Task* task = current;
  try {
    task->body();
  } catch (const std::exception& error) {
    fatal("an exception leaves task '%s': %s", task->name, error.what());
  } catch (...) {
    fatal("an exception leaves task '%s'", task->name);
  }
  if (task->kthread)
    fatal("thread '%s' returns from its body; it must end with thread_exit", task->name);
  end_current();
}

void Kernel::end_current() {
  Task* task = current;
  if (!task->spins.empty()) {
    fatal("task '%s' ends with the spin lock '%s' held", task->name, task->spins.back()->name);
  }
  if (task->plug_depth > 0) fatal("task '%s' ends with a plug open", task->name);
  if (task->noio > 0) fatal("task '%s' ends between noio_begin and noio_end", task->name);
  task->state = Task::State::Dead;
  if (task->foreground) --foreground_alive;
  progress = true;
  switch_to_main(true);
  abort();
}

void Kernel::task_put(Task* task) {
  if (task->references <= 0)
    fatal("a reference of task '%s' is dropped once too often", task->name);
  if (--task->references == 0 && task->state == Task::State::Dead) spare_tasks.push_back(task);
}

// ---- Switching

void Kernel::switch_to_main(bool dying) { switch_fiber(current->fiber, main, dying); }

void Kernel::run_task(Task* task) {
  mix(task->id);
  mix(step);
  current = task;
  task->slice_steps = step;
  next_stop = 0;
  switch_fiber(main, task->fiber, false);
  current = nullptr;
  if (task->state != Task::State::Dead) return;
  std::size_t& deepest = stack_by_name[task->name];
  deepest = std::max(deepest, task->driver_deepest);
  task->fiber.destroy();
  tasks.erase(std::find(tasks.begin(), tasks.end(), task));
  if (task->references == 0) spare_tasks.push_back(task);
}

void Kernel::demote(Task* task) { task->priority = --low_priority; }

void Kernel::check_stack(const char* here) {
  const std::size_t used = static_cast<std::size_t>(current->driver_base - here);
  current->stack_floor = nullptr;
  fatal("stack: the driver and what it called use %zu bytes of the %zu that a kernel thread has",
        used, kDriverStackBytes);
}

void Kernel::point() {
  ++step;
  const char* here = static_cast<const char*>(__builtin_frame_address(0));
  Task* task = current;
  if (task->driver_base != nullptr) {
    const auto depth = static_cast<std::size_t>(task->driver_base - here);
    if (depth > task->driver_deepest) task->driver_deepest = depth;
    if (here < task->stack_floor) check_stack(here);
  }
  if (step >= next_stop) reschedule();
}

void Kernel::reschedule() {
  Task* task = current;
  if (step > options.step_limit) {
    fatal("the run goes round in circles: %llu steps\n%s", static_cast<unsigned long long>(step),
          describe_tasks().c_str());
  }
  bool leave = step >= power_cut_step || now_us() >= power_cut_us;
  if (task->quiet == 0) {
    if (step >= change_at) {
      change_at = step + 1 + sched_rng.below(2 * change_mean);
      demote(task);
    }
    if (step - task->slice_steps >= kSliceSteps) {
      demote(task);
      task->slice_steps = step;
    }
    if (!events.empty() && events.front().time_us <= now_us()) leave = true;
    for (Task* other : tasks) {
      if (other->state == Task::State::Runnable && other->priority > task->priority) leave = true;
    }
  }
  if (leave) {
    switch_to_main();
    return;  // run_task has set next_stop to look again at the next point
  }
  next_stop =
      std::min({change_at, task->slice_steps + kSliceSteps, power_cut_step, options.step_limit});
  if (power_cut_us != ~0ull) next_stop = std::min(next_stop, power_cut_us - time_base_us);
  if (!events.empty()) next_stop = std::min(next_stop, events.front().time_us - time_base_us);
  if (task->quiet > 0) next_stop = step + 1000;
}

Task* Kernel::pick() {
  Task* best = nullptr;
  for (Task* task : tasks) {
    if (task->state != Task::State::Runnable) continue;
    if (task->quiet > 0) return task;
    if (best == nullptr || task->priority > best->priority) best = task;
  }
  return best;
}

// ---- Events

void Kernel::push_event(Event event) {
  event.order = ++event_order;
  events.push_back(std::move(event));
  std::push_heap(events.begin(), events.end(), later);
  next_stop = 0;
}

void Kernel::add_event(u64 delay_us, std::function<void()> handler, bool background) {
  push_event({now_us() + delay_us, 0, nullptr, 0, background, std::move(handler)});
}

void Kernel::start_irq(std::function<void()> handler) {
  ++irqs_alive;
  if (!idle_irqs.empty()) {
    Task* task = idle_irqs.back();
    idle_irqs.pop_back();
    task->irq_work = std::move(handler);
    task->priority = kHighPriority + (sched_rng.next() & 0xFFFFFFFF);
    task->state = Task::State::Runnable;
    next_stop = 0;
    return;
  }
  Task* task = new_task("irq", nullptr, 0);
  task->irq = true;
  task->irq_work = std::move(handler);
  task->body = [this, task] {
    for (;;) {
      std::function<void()> todo = std::move(task->irq_work);
      todo();
      if (!task->spins.empty()) {
        fatal("an interrupt ends with the spin lock '%s' held", task->spins.back()->name);
      }
      todo = nullptr;
      --irqs_alive;
      progress = true;
      task->state = Task::State::Blocked;
      task->wait_what = "its next interrupt";
      idle_irqs.push_back(task);
      switch_to_main();
    }
  };
}

bool Kernel::deliver_events() {
  bool any = false;
  while (!events.empty() && events.front().time_us <= now_us()) {
    std::pop_heap(events.begin(), events.end(), later);
    Event event = std::move(events.back());
    events.pop_back();
    if (event.task != nullptr) {
      if (event.task->timer != event.timer || event.task->state != Task::State::Blocked) continue;
      event.task->timed_out = true;
      wake(event.task);
    } else {
      start_irq(std::move(event.handler));
    }
    any = true;
    progress = true;
  }
  return any;
}

// ---- The run

namespace {

bool is_live(const Event& event) {
  return event.task == nullptr ||
         (event.task->timer == event.timer && event.task->state == Task::State::Blocked);
}

}  // namespace

RunEnd Kernel::run() {
  if (current != nullptr) fatal("Sim::run is called by a task");
  running = true;
  u64 drain_from = 0;
  for (;;) {
    if (has_fatal || power_off) break;
    if (step >= power_cut_step || now_us() >= power_cut_us) {
      power_off = true;
      dead = true;
      break;
    }
    deliver_events();
    while (!events.empty() && !is_live(events.front())) {
      std::pop_heap(events.begin(), events.end(), later);
      events.pop_back();
    }
    Task* task = pick();
    if (foreground_alive == 0) {
      if (drain_from == 0) drain_from = step + 1;
      const bool in_flight = std::any_of(events.begin(), events.end(), [](const Event& event) {
        return !event.background && is_live(event);
      });
      if ((task == nullptr && !in_flight) || step > drain_from + kDrainSteps) break;
    } else {
      drain_from = 0;
    }
    if (task != nullptr) {
      const bool all_yield = std::all_of(tasks.begin(), tasks.end(), [](const Task* other) {
        return other->state != Task::State::Runnable || other->prepared_yield;
      });
      if (all_yield) {
        u64 jump = 1000;
        if (!events.empty()) jump = std::min(jump, events.front().time_us - now_us());
        time_base_us += jump;
        for (Task* other : tasks) other->prepared_yield = false;
        continue;
      }
      task->prepared_yield = false;
      if (!task->polling) progress = true;
      run_task(task);
      continue;
    }
    if (pollers.head != nullptr && progress) {
      progress = false;
      wake_all(pollers);
      continue;
    }
    if (!events.empty()) {
      time_base_us += events.front().time_us - now_us();
      continue;
    }
    if (foreground_alive == 0) break;
    set_fatal("deadlock: nobody can run and nothing is in flight\n" + describe_tasks());
  }
  running = false;
  if (has_fatal) return RunEnd::Fatal;
  return power_off ? RunEnd::PowerCut : RunEnd::Done;
}

// ---- Waiting

bool Kernel::block(const char* what, const void* object, const char* name, Task* owner,
                   s64 limit_us, bool background) {
  Task* task = current;
  task->state = Task::State::Blocked;
  task->wait_what = what;
  task->wait_object = object;
  task->wait_name = name;
  task->wait_owner = owner;
  task->timed_out = false;
  ++task->timer;
  if (limit_us >= 0) {
    const bool lone = background || !task->foreground;
    push_event({now_us() + static_cast<u64>(limit_us), 0, task, task->timer, lone, nullptr});
  }
  switch_to_main();
  ++task->timer;
  task->wait_what = nullptr;
  return !task->timed_out;
}

bool Kernel::sleep(const char* what, const void* object, const char* name, Task* owner,
                   s64 limit_us, bool background) {
  flush_plug(current);
  return block(what, object, name, owner, limit_us, background);
}

void Kernel::wake(Task* task) {
  if (task->state != Task::State::Blocked) return;
  task->state = Task::State::Runnable;
  ++task->timer;
  if (current == nullptr || task->priority > current->priority) next_stop = 0;
}

void Kernel::wait_on(WaitList& list) {
  Task* task = current;
  task->wait_next = nullptr;
  (list.tail != nullptr ? list.tail->wait_next : list.head) = task;
  list.tail = task;
}

void Kernel::remove_waiter(WaitList& list, Task* task) {
  Task* before = nullptr;
  for (Task* at = list.head; at != nullptr; before = at, at = at->wait_next) {
    if (at != task) continue;
    (before != nullptr ? before->wait_next : list.head) = at->wait_next;
    if (list.tail == at) list.tail = before;
    at->wait_next = nullptr;
    return;
  }
}

void Kernel::wake_one(WaitList& list) {
  Task* task = list.head;
  if (task == nullptr) return;
  list.head = task->wait_next;
  if (list.head == nullptr) list.tail = nullptr;
  task->wait_next = nullptr;
  wake(task);
}

void Kernel::wake_all(WaitList& list) {
  while (list.head != nullptr) wake_one(list);
}

void Kernel::sleep_in(WaitList& list, const char* what, const void* object, const char* name,
                      Task* owner, s64 limit_us) {
  // The plugged requests go first: sending them may itself sleep.
  flush_plug(current);
  wait_on(list);
  if (!block(what, object, name, owner, limit_us)) remove_waiter(list, current);
}

void Kernel::might_sleep(const char* call) {
  Task* task = current;
  if (task == nullptr) return;
  if (task->irq) fatal("%s() sleeps in an interrupt", call);
  if (!task->spins.empty()) {
    fatal("%s() sleeps with the spin lock '%s' held", call, task->spins.back()->name);
  }
  if (task->irqs_off > 0) fatal("%s() sleeps with interrupts off", call);
}

void Kernel::yield() {
  flush_plug(current);
  demote(current);
  current->prepared_yield = true;
  time_base_us += 5;
  switch_to_main();
}

void Kernel::lock(Mutex& mutex) {
  if (mutex.owner == current) {
    fatal("deadlock: task '%s' takes %s, which it holds\n%s", current->name, mutex.name.c_str(),
          describe_tasks().c_str());
  }
  while (mutex.owner != nullptr) {
    sleep_in(mutex.waiters, "the mutex", &mutex, mutex.name.c_str(), mutex.owner);
  }
  mutex.owner = current;
}

void Kernel::unlock(Mutex& mutex) {
  mutex.owner = nullptr;
  wake_one(mutex.waiters);
}

// ---- Fatal ends

void Kernel::set_fatal(std::string text) {
  if (!has_fatal) fatal_text = std::move(text);
  has_fatal = true;
  dead = true;
}

void Kernel::fatal_text_end(std::string text) {
  if (current == nullptr) {
    fprintf(stderr, "snbf sim, outside of a task: %s\n", text.c_str());
    abort();
  }
  set_fatal(std::move(text));
  switch_to_main(true);
  abort();
}

void Kernel::fatal(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  std::string message = length >= 0 ? text : format;
  free(text);
  if (current != nullptr) {
    message += "\n  in ";
    message += describe_task(*current);
  }
  fatal_text_end(std::move(message));
}

std::string Kernel::describe_task(const Task& task) const {
  char line[512];
  const int pid = task.pid;
  if (task.irq) {
    snprintf(line, sizeof(line), "interrupt #%u", task.id);
  } else {
    snprintf(line, sizeof(line), "task '%s' (pid %d)", task.name, pid);
  }
  std::string text = line;
  if (task.state == Task::State::Blocked) {
    snprintf(line, sizeof(line), " waits for %s %s%s%s",
             task.wait_what ? task.wait_what : "something", task.wait_name ? "'" : "",
             task.wait_name ? task.wait_name : "", task.wait_name ? "'" : "");
    text += line;
    if (task.wait_owner != nullptr) {
      snprintf(line, sizeof(line), ", held by '%s' (pid %d)", task.wait_owner->name,
               task.wait_owner->pid);
      text += line;
    }
  }
  for (const SpinState* spin : task.spins)
    text += std::string(", holds spin lock '") + spin->name + "'";
  if (!task.plugged.empty())
    text += ", " + std::to_string(task.plugged.size()) + " requests in its plug";
  if (task.bio_lists != nullptr) text += ", inside a submit function" + describe_lists(task);
  return text;
}

std::string Kernel::describe_tasks() const {
  std::string text;
  for (const Task* task : tasks) {
    if (task->irq && task->state == Task::State::Blocked && task->wait_name == nullptr) continue;
    text += "  " + describe_task(*task) + "\n";
  }
  return text + describe_held();
}

}  // namespace snbf::sim

extern "C" void snbf_sim_point(void) {
  snbf::sim::Kernel* k = snbf::sim::kernel_or_null();
  if (k != nullptr && k->current != nullptr) k->point();
}
