/* SPDX-License-Identifier: GPL-2.0 */
/* What the parts of the platform tell the unload. */
#ifndef SNBF_LINUX_MODULE_H
#define SNBF_LINUX_MODULE_H

/*
 * A task may have left this text last in a callback of ours, and have told of its end there before
 * it was out: unload then waits until no task can have been preempted on its way out. Any context.
 */
void snbf_expect_stragglers(void);

#endif
