/* SPDX-License-Identifier: GPL-2.0-only */
/* What load and unload share with the parts of the platform. */
#ifndef SNBF_LINUX_MODULE_H
#define SNBF_LINUX_MODULE_H

/*
 * A task may have left this text last in a callback of ours, and have told of its end there before
 * it was out: unload then waits until no task can have been preempted on its way out. Any context.
 */
void snbf_expect_stragglers(void);

/* Makes the control device's file, and serves its number from then on. Last of a load, and only when all of the driver
 * is up: a load that fails frees the text under whoever has the file open. 0 or a negative error. */
int snbf_control_publish(void);

/* The threads behind snbf_plat_run_as_kernel. */
int snbf_kernel_calls_init(void);
void snbf_kernel_calls_exit(void);

#endif
