/* SPDX-License-Identifier: GPL-2.0-only */
/* Locks and waiting. */
#ifndef SNBF_PLATFORM_SYNC_H
#define SNBF_PLATFORM_SYNC_H

#include "platform/types.h"

PLAT_BEGIN_DECLS

/* Spin locks. Nobody may sleep while one is held. Plain ones are never taken in an interrupt. */
void snbf_plat_spin_init(plat_spin* lock, const char* name);
void snbf_plat_spin_lock(plat_spin* lock);
void snbf_plat_spin_unlock(plat_spin* lock);
/* With interrupts off; answers the state that unlock restores. Any context. */
unsigned long snbf_plat_spin_lock_irqsave(plat_spin* lock);
void snbf_plat_spin_unlock_irqrestore(plat_spin* lock, unsigned long state);

/* Counting semaphore. down sleeps uninterruptibly; try_down answers 0 where down would sleep; up may be called from
 * any context. */
void snbf_plat_sem_init(plat_semaphore* sem, int count);
void snbf_plat_sem_down(plat_semaphore* sem);
int snbf_plat_sem_try_down(plat_semaphore* sem);
void snbf_plat_sem_up(plat_semaphore* sem);

/*
 * Wait queues. A waiter: prepare (joins the queue, from now on a wake-up is remembered), test the
 * condition, drop its spin locks, sleep, and start over with prepare; finish leaves the queue. Only prepare,
 * finish and wake may be called with a spin lock held. Sleeping sends the task's plugged requests on first:
 * a waiter may be waited for by them.
 */
void snbf_plat_waitq_init(plat_waitq* queue);
/* `interruptible` non-zero is for idle kernel threads: such a sleep counts neither as load nor as a hang. */
void snbf_plat_wait_prepare(plat_waitq* queue, plat_wait_entry* entry, int interruptible);
void snbf_plat_wait_sleep(void);
/* As sleep, for at most `limit_ms`. */
void snbf_plat_wait_sleep_ms(plat_u32 limit_ms);
void snbf_plat_wait_finish(plat_waitq* queue, plat_wait_entry* entry);
/* Wakes every waiter. Any context. */
void snbf_plat_wake(plat_waitq* queue);

/* Completions: done is remembered, once for one waiter. complete: any context. */
void snbf_plat_completion_init(plat_completion* completion);
void snbf_plat_complete(plat_completion* completion);
void snbf_plat_completion_wait(plat_completion* completion);
/* 1 when completed, 0 when `limit_ms` passed first. */
int snbf_plat_completion_wait_ms(plat_completion* completion, plat_u32 limit_ms);

PLAT_END_DECLS
#endif
