/* SPDX-License-Identifier: GPL-2.0-only */
/* The current task, time, kernel threads, the module. */
#ifndef SNBF_PLATFORM_TASK_H
#define SNBF_PLATFORM_TASK_H

#include "platform/types.h"

PLAT_BEGIN_DECLS

/* Length of a task's name, terminator included. */
#define PLAT_TASK_NAME_BYTES 16

/* The running task; valid while it runs, longer with a reference. Only compared, never looked into. */
plat_task* snbf_plat_task_current(void);
/* A reference keeps the pointer from being reused for another task. Any context. */
void snbf_plat_task_get(plat_task* task);
void snbf_plat_task_put(plat_task* task);
int snbf_plat_task_pid(void);
void snbf_plat_task_name(char name[PLAT_TASK_NAME_BYTES]);
/* 1 in a hardware or software interrupt. */
int snbf_plat_in_interrupt(void);
/* Asserts that the caller may sleep. */
void snbf_plat_might_sleep(void);

/* Milliseconds since some point before now; monotonic. Any context. */
plat_u64 snbf_plat_ticks_ms(void);
/* Gives the processor up for a moment, as a sleep: plugged requests are sent on, lower priorities get to run. */
void snbf_plat_yield(void);
void snbf_plat_sleep_ms(plat_u32 ms);

/*
 * Starts a kernel thread with all signals blocked. Answers its process id (> 0) or a negative error.
 * The body must not return: it ends with thread_exit. May sleep.
 */
int snbf_plat_thread_start(const char* name, void (*body)(void* argument), void* argument);
/* Completes `completion` and ends the thread in one step, without coming back into the driver's text. */
__attribute__((noreturn)) void snbf_plat_thread_exit(plat_completion* completion);
/* The calling thread writes files that other writes wait for: its memory allocations start no I/O and its
 * dirty pages are throttled by its own device alone. */
void snbf_plat_thread_serves_writes(void);
/* The same for a stretch of any task's work. They nest. */
unsigned snbf_plat_serve_writes_begin(void);
void snbf_plat_serve_writes_end(unsigned state);

/*
 * Runs `work(argument)` in a kernel thread, with the kernel's own credentials, limits and root, and waits for its
 * end. For what falls to a task by chance: it may be an exiting process, which has none of these any more, or one that is
 * being killed, which the kernel refuses memory. Never fails. May sleep.
 */
void snbf_plat_run_as_kernel(void (*work)(void* argument), void* argument);

/* Between begin and end no allocation of the calling task starts I/O. They nest. */
unsigned snbf_plat_noio_begin(void);
void snbf_plat_noio_end(unsigned state);

/* Reference on the module: 0 when it is being unloaded, else 1. */
int snbf_plat_module_get(void);
void snbf_plat_module_put(void);

void snbf_plat_random_bytes(void* to, plat_size bytes);

PLAT_END_DECLS
#endif
