// SPDX-License-Identifier: GPL-2.0-only
/* Locks and waiting. */
#include "platform/sync.h"

#include <linux/completion.h>
#include <linux/jiffies.h>
#include <linux/lockdep.h>
#include <linux/sched.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>
#include <linux/wait.h>

static_assert(sizeof(spinlock_t) <= sizeof(plat_spin));
static_assert(sizeof(struct semaphore) <= sizeof(plat_semaphore));
static_assert(sizeof(wait_queue_head_t) <= sizeof(plat_waitq));
static_assert(sizeof(wait_queue_entry_t) <= sizeof(plat_wait_entry));
static_assert(sizeof(struct completion) <= sizeof(plat_completion));

static spinlock_t* spin_of(plat_spin* lock) { return (spinlock_t*)lock; }

static wait_queue_head_t* queue_of(plat_waitq* queue) { return (wait_queue_head_t*)queue; }

static struct completion* completion_of(plat_completion* completion) {
  return (struct completion*)completion;
}

void snbf_plat_spin_init(plat_spin* lock, const char* name) {
  spin_lock_init(spin_of(lock));
  /* One class a name: the literal's address serves as the key, which is only compared. */
  lockdep_set_class_and_name(spin_of(lock), (struct lock_class_key*)name, name);
}

void snbf_plat_spin_lock(plat_spin* lock) { spin_lock(spin_of(lock)); }

void snbf_plat_spin_unlock(plat_spin* lock) { spin_unlock(spin_of(lock)); }

unsigned long snbf_plat_spin_lock_irqsave(plat_spin* lock) {
  unsigned long state;

  spin_lock_irqsave(spin_of(lock), state);
  return state;
}

void snbf_plat_spin_unlock_irqrestore(plat_spin* lock, unsigned long state) {
  spin_unlock_irqrestore(spin_of(lock), state);
}

void snbf_plat_sem_init(plat_semaphore* sem, int count) {
  sema_init((struct semaphore*)sem, count);
}

void snbf_plat_sem_down(plat_semaphore* sem) { down((struct semaphore*)sem); }

int snbf_plat_sem_try_down(plat_semaphore* sem) { return down_trylock((struct semaphore*)sem) == 0; }

void snbf_plat_sem_up(plat_semaphore* sem) { up((struct semaphore*)sem); }

void snbf_plat_waitq_init(plat_waitq* queue) { init_waitqueue_head(queue_of(queue)); }

void snbf_plat_wait_prepare(plat_waitq* queue, plat_wait_entry* entry, int interruptible) {
  wait_queue_entry_t* wait = (wait_queue_entry_t*)entry;

  /* Zero-filled: its first use. Later it may still be queued and must stay as it is. */
  if (!wait->func) init_wait(wait);
  prepare_to_wait(queue_of(queue), wait, interruptible ? TASK_IDLE : TASK_UNINTERRUPTIBLE);
}

/* An idle thread's sleep is no wait for I/O; either kind of sleep sends plugged requests on. */
static long sleep_at_most(long timeout) {
  if (READ_ONCE(current->__state) & TASK_NOLOAD) return schedule_timeout(timeout);
  return io_schedule_timeout(timeout);
}

void snbf_plat_wait_sleep(void) { sleep_at_most(MAX_SCHEDULE_TIMEOUT); }

void snbf_plat_wait_sleep_ms(plat_u32 limit_ms) { sleep_at_most(msecs_to_jiffies(limit_ms)); }

void snbf_plat_wait_finish(plat_waitq* queue, plat_wait_entry* entry) {
  wait_queue_entry_t* wait = (wait_queue_entry_t*)entry;

  if (wait->func) finish_wait(queue_of(queue), wait);
}

void snbf_plat_wake(plat_waitq* queue) { wake_up_all(queue_of(queue)); }

void snbf_plat_completion_init(plat_completion* completion) {
  init_completion(completion_of(completion));
}

void snbf_plat_complete(plat_completion* completion) { complete(completion_of(completion)); }

void snbf_plat_completion_wait(plat_completion* completion) {
  wait_for_completion(completion_of(completion));
}

int snbf_plat_completion_wait_ms(plat_completion* completion, plat_u32 limit_ms) {
  return wait_for_completion_timeout(completion_of(completion), msecs_to_jiffies(limit_ms)) != 0;
}
