// SPDX-License-Identifier: GPL-2.0-only
/* The current task, time, kernel threads, the module. */
#include "platform/task.h"

#include <linux/delay.h>
#include <linux/kthread.h>
#include <linux/ktime.h>
#include <linux/module.h>
#include <linux/random.h>
#include <linux/sched.h>
#include <linux/sched/mm.h>
#include <linux/sched/signal.h>
#include <linux/sched/task.h>
#include <linux/slab.h>
#include <linux/workqueue.h>

#include "module.h"

static_assert(PLAT_TASK_NAME_BYTES == TASK_COMM_LEN);

plat_task* snbf_plat_task_current(void) { return (plat_task*)current; }

void snbf_plat_task_get(plat_task* task) { get_task_struct((struct task_struct*)task); }

void snbf_plat_task_put(plat_task* task) { put_task_struct((struct task_struct*)task); }

int snbf_plat_task_pid(void) { return task_pid_nr(current); }

void snbf_plat_task_name(char name[PLAT_TASK_NAME_BYTES]) {
  /* No lock: on every request's path, and a task's own name hardly ever changes under it. */
  memcpy(name, current->comm, PLAT_TASK_NAME_BYTES);
  name[PLAT_TASK_NAME_BYTES - 1] = '\0';
}

int snbf_plat_in_interrupt(void) { return !in_task(); }

void snbf_plat_might_sleep(void) { might_sleep(); }

plat_u64 snbf_plat_ticks_ms(void) { return ktime_to_ms(ktime_get()); }

void snbf_plat_yield(void) {
  /* A sleep and no yield(): only a task that stops running sends its plugged requests on. */
  usleep_range_state(50, 100, TASK_UNINTERRUPTIBLE);
}

void snbf_plat_sleep_ms(plat_u32 ms) { msleep(ms); }

struct thread_start {
  void (*body)(void* argument);
  void* argument;
};

static int thread_main(void* data) {
  const struct thread_start start = *(struct thread_start*)data;
  sigset_t all;

  kfree(data);
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, NULL);
  start.body(start.argument);
  BUG();
}

int snbf_plat_thread_start(const char* name, void (*body)(void* argument), void* argument) {
  struct thread_start* start = kmalloc(sizeof(*start), GFP_KERNEL);
  struct task_struct* task;
  int pid;

  if (!start) return -ENOMEM;
  start->body = body;
  start->argument = argument;
  task = kthread_create(thread_main, start, "%s", name);
  if (IS_ERR(task)) {
    kfree(start);
    return PTR_ERR(task);
  }
  /* Asked before it runs: afterwards it may be gone at any time. */
  pid = task_pid_nr(task);
  wake_up_process(task);
  return pid;
}

void snbf_plat_thread_exit(plat_completion* completion) {
  kthread_complete_and_exit((struct completion*)completion, 0);
}

void snbf_plat_thread_serves_writes(void) {
  memalloc_noio_save();
  current->flags |= PF_LOCAL_THROTTLE;
}

/* With a rescuer of its own: waiting for it is allowed in every context that may sleep. */
static struct workqueue_struct* kernel_calls;

int snbf_kernel_calls_init(void) {
  kernel_calls = alloc_workqueue("snbf", WQ_UNBOUND | WQ_MEM_RECLAIM, 0);
  return kernel_calls ? 0 : -ENOMEM;
}

void snbf_kernel_calls_exit(void) { destroy_workqueue(kernel_calls); }

struct kernel_call {
  struct work_struct work;
  void (*function)(void* argument);
  void* argument;
};

static void run_kernel_call(struct work_struct* work) {
  struct kernel_call* call = container_of(work, struct kernel_call, work);

  call->function(call->argument);
}

void snbf_plat_run_as_kernel(void (*work)(void* argument), void* argument) {
  struct kernel_call call = {.function = work, .argument = argument};

  INIT_WORK_ONSTACK(&call.work, run_kernel_call);
  queue_work(kernel_calls, &call.work);
  flush_work(&call.work);
  destroy_work_on_stack(&call.work);
}

unsigned snbf_plat_serve_writes_begin(void) {
  const unsigned state = memalloc_noio_save() | (current->flags & PF_LOCAL_THROTTLE);

  current->flags |= PF_LOCAL_THROTTLE;
  return state;
}

void snbf_plat_serve_writes_end(unsigned state) {
  current->flags = (current->flags & ~PF_LOCAL_THROTTLE) | (state & PF_LOCAL_THROTTLE);
  memalloc_noio_restore(state & PF_MEMALLOC_NOIO);
}

unsigned snbf_plat_noio_begin(void) { return memalloc_noio_save(); }

void snbf_plat_noio_end(unsigned state) { memalloc_noio_restore(state); }

int snbf_plat_module_get(void) { return try_module_get(THIS_MODULE); }

void snbf_plat_module_put(void) { module_put(THIS_MODULE); }

void snbf_plat_random_bytes(void* to, plat_size bytes) { get_random_bytes(to, bytes); }
