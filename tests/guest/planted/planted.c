// SPDX-License-Identifier: GPL-2.0-only
/* One defect on purpose, by the parameter `bug`: what a debug kernel is there to report. Each is over, or undone, when the
 * module's loading ends, but for the leak. */
#include <linux/delay.h>
#include <linux/kthread.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/timer.h>

static char* bug = "";
module_param(bug, charp, 0);

static DEFINE_MUTEX(first);
static DEFINE_MUTEX(second);
static DEFINE_SPINLOCK(spin);
static unsigned long shared;

static void use_after_free(void) {
  volatile char* data = kmalloc(64, GFP_KERNEL);

  kfree((void*)data);
  data[8] = 1;
}

static void lock_order(void) {
  mutex_lock(&first);
  mutex_lock(&second);
  mutex_unlock(&second);
  mutex_unlock(&first);
  mutex_lock(&second);
  mutex_lock(&first);
  mutex_unlock(&first);
  mutex_unlock(&second);
}

static void take_in_timer(struct timer_list* timer) {
  spin_lock(&spin);
  spin_unlock(&spin);
}

static DEFINE_TIMER(timer, take_in_timer);

/* Taken with interrupts on here, and by a timer's interrupt there. */
static void lock_state(void) {
  spin_lock(&spin);
  spin_unlock(&spin);
  mod_timer(&timer, jiffies + 1);
  msleep(100);
  del_timer_sync(&timer);
}

static void sleep_under_spin(void) {
  spin_lock(&spin);
  might_sleep();
  spin_unlock(&spin);
}

/* An armed timer's memory is given back. */
static void live_object(void) {
  struct timer_list* armed = kzalloc(sizeof(*armed), GFP_KERNEL);

  timer_setup(armed, take_in_timer, 0);
  mod_timer(armed, jiffies + 1000 * HZ);
  kfree(armed);
}

/* Several: the address of one may stay in a register or on a stack. */
static void leak(void) {
  int count;

  for (count = 0; count < 16; count++) memset(kmalloc(200, GFP_KERNEL), count, 200);
}

static int count_up(void* unused) {
  while (!kthread_should_stop()) {
    shared++;
    cond_resched();
  }
  return 0;
}

static void race(void) {
  struct task_struct* one = kthread_run(count_up, NULL, "planted1");
  struct task_struct* other = kthread_run(count_up, NULL, "planted2");

  msleep(5000);
  kthread_stop(one);
  kthread_stop(other);
}

static const struct {
  const char* name;
  void (*plant)(void);
} bugs[] = {
    {"use-after-free", use_after_free}, {"lock-order", lock_order},   {"lock-state", lock_state},
    {"sleep", sleep_under_spin},        {"live-object", live_object}, {"leak", leak},
    {"race", race},
};

static int __init planted_init(void) {
  size_t at;

  for (at = 0; at < ARRAY_SIZE(bugs); at++) {
    if (strcmp(bug, bugs[at].name) != 0) continue;
    bugs[at].plant();
    return 0;
  }
  return -EINVAL;
}

static void __exit planted_exit(void) {}

module_init(planted_init);
module_exit(planted_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Defects on purpose");
