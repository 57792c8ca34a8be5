/* SPDX-License-Identifier: GPL-2.0-only */
/* Freezes of file systems: what load and unload do for them. */
#ifndef SNBF_LINUX_FREEZE_H
#define SNBF_LINUX_FREEZE_H

int snbf_freezes_init(void);
/* Waits until each file system that was let go last is unmounted. */
void snbf_freezes_exit(void);

#endif
