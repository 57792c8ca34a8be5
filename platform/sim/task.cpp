// The current task, time, kernel threads, the module.
#include "platform/task.h"

#include <cstring>

#include "kernel.h"
#include "platform/sync.h"

using snbf::sim::enter;
using snbf::sim::enter_sleeping;
using snbf::sim::Kernel;
using snbf::sim::kernel;
using snbf::sim::s64;

namespace {

plat_task* seen_task(Kernel& k) {
  if (k.current == nullptr) k.fatal_text_end("task_current() outside of a task");
  return k.current;
}

}  // namespace

extern "C" {

plat_task* snbf_plat_task_current(void) { return seen_task(kernel()); }

void snbf_plat_task_get(plat_task* task) {
  Kernel& k = kernel();
  k.task_get(task);
  ++k.task_references;
}

void snbf_plat_task_put(plat_task* task) {
  Kernel& k = kernel();
  if (k.task_references == 0) k.fatal("task_put() without task_get()");
  --k.task_references;
  k.task_put(task);
}

int snbf_plat_task_pid(void) {
  Kernel* k = snbf::sim::kernel_or_null();
  return k != nullptr && k->current != nullptr ? k->current->pid : 0;
}

void snbf_plat_task_name(char name[PLAT_TASK_NAME_BYTES]) {
  memcpy(name, seen_task(kernel())->name, PLAT_TASK_NAME_BYTES);
}

int snbf_plat_in_interrupt(void) {
  Kernel* k = snbf::sim::kernel_or_null();
  return k != nullptr && k->in_interrupt() ? 1 : 0;
}

void snbf_plat_might_sleep(void) { enter_sleeping("might_sleep"); }

plat_u64 snbf_plat_ticks_ms(void) { return enter("ticks_ms").now_us() / 1000; }

void snbf_plat_yield(void) { enter_sleeping("yield").yield(); }

void snbf_plat_sleep_ms(plat_u32 ms) {
  Kernel& k = enter_sleeping("sleep_ms");
  k.sleep("the time", nullptr, nullptr, nullptr, s64{1000} * ms);
}

int snbf_plat_thread_start(const char* name, void (*body)(void* argument), void* argument) {
  Kernel& k = enter_sleeping("thread_start");
  if (int error = k.fault(snbf::sim::Fault::ThreadStart, -ENOMEM); error != 0) return error;
  plat_task* task = k.new_task(
      name,
      [&k, body, argument] {
        snbf::sim::InDriver in_driver(k);
        body(argument);
      },
      0);
  task->kthread = true;
  const int pid = task->pid;
  k.point();
  return pid;
}

void snbf_plat_thread_exit(plat_completion* completion) {
  Kernel& k = enter("thread_exit");
  if (!k.current->kthread) k.fatal("thread_exit() by a task that is no thread of the driver");
  // Gone in the same step: whoever waits for the completion never finds the thread still there.
  ++k.current->quiet;
  if (completion != nullptr) snbf_plat_complete(completion);
  k.end_current();
}

void snbf_plat_run_as_kernel(void (*work)(void* argument), void* argument) {
  Kernel& k = enter_sleeping("run_as_kernel");
  plat_completion done = {};
  snbf_plat_completion_init(&done);
  plat_task* task = k.new_task(
      "kworker",
      [&k, &done, work, argument] {
        snbf::sim::InDriver in_driver(k);
        work(argument);
        snbf_plat_thread_exit(&done);
      },
      0);
  task->kthread = true;
  snbf_plat_completion_wait(&done);
}

void snbf_plat_thread_serves_writes(void) {
  Kernel& k = enter("thread_serves_writes");
  k.current->serves_writes = true;
}

unsigned snbf_plat_serve_writes_begin(void) {
  Kernel& k = enter("serve_writes_begin");
  const bool before = k.current->serves_writes;
  k.current->serves_writes = true;
  return before ? 1 : 0;
}

void snbf_plat_serve_writes_end(unsigned state) {
  Kernel& k = enter("serve_writes_end");
  if (!k.current->serves_writes) k.fatal("serve_writes_end() without a begin");
  k.current->serves_writes = state != 0;
}

unsigned snbf_plat_noio_begin(void) {
  return static_cast<unsigned>(enter("noio_begin").current->noio++);
}

void snbf_plat_noio_end(unsigned state) {
  Kernel& k = enter("noio_end");
  if (static_cast<int>(state) != k.current->noio - 1) {
    k.fatal("noio_end() with a state that is not the one noio_begin() answered");
  }
  --k.current->noio;
}

int snbf_plat_module_get(void) {
  Kernel& k = enter("module_get");
  if (k.module_going) return 0;
  ++k.module_refs;
  return 1;
}

void snbf_plat_module_put(void) {
  Kernel& k = enter("module_put");
  if (k.module_refs <= 0) k.fatal("module_put() without module_get()");
  --k.module_refs;
}

void snbf_plat_random_bytes(void* to, plat_size bytes) {
  Kernel& k = enter("random_bytes");
  auto* out = static_cast<unsigned char*>(to);
  for (plat_size i = 0; i < bytes; ++i) out[i] = static_cast<unsigned char>(k.io_rng.next());
}
}
