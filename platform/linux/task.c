// SPDX-License-Identifier: GPL-2.0
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

unsigned snbf_plat_noio_begin(void) { return memalloc_noio_save(); }

void snbf_plat_noio_end(unsigned state) { memalloc_noio_restore(state); }

int snbf_plat_module_get(void) { return try_module_get(THIS_MODULE); }

void snbf_plat_module_put(void) { module_put(THIS_MODULE); }

void snbf_plat_random_bytes(void* to, plat_size bytes) { get_random_bytes(to, bytes); }
