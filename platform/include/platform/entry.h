/* SPDX-License-Identifier: GPL-2.0-only */
/* What the kernel may call in the driver. */
#ifndef SNBF_PLATFORM_ENTRY_H
#define SNBF_PLATFORM_ENTRY_H

#include "platform/types.h"

PLAT_BEGIN_DECLS

/* Module parameters, set before snbf_init. */
extern int snbf_chr_major;
extern int snbf_debug;
extern int snbf_max_blk_minor;
extern int snbf_blk_major;

/* Load: 0 or the negative error with which the load fails. */
int snbf_init(void);
/* Unload. Returns only when nothing of the driver can run any more: it waits and tries again as often as need be. */
void snbf_unload(void);

/* The control device. `file` is an opaque token. */
int snbf_char_open(void* inode, void* file);
int snbf_char_release(void* inode, void* file);
plat_s64 snbf_char_read(void* file, plat_u64 to_user, plat_size bytes, plat_s64* position);
plat_s64 snbf_char_write(void* file, plat_u64 from_user, plat_size bytes, plat_s64* position);
int snbf_char_ioctl(void* inode, void* file, unsigned int cmd, unsigned long arg);

/* The nodes. `bdev` is the node's own block device, `device` its number. Open and release are called with the disk's
 * open mutex held. */
int snbf_block_open(plat_bdev* bdev, plat_devt device);
int snbf_block_release(plat_devt device);
/* Only the commands that the block layer does not answer itself. */
int snbf_block_ioctl(plat_devt device, int mode, unsigned int cmd, unsigned long arg);
/*
 * One request to a node. Process context, may sleep; at most 4 MiB. Always 0: the request has been taken, and is
 * completed now or later. `queue` is an opaque token.
 */
int snbf_make_request(void* queue, plat_bio* bio);

/* One /proc file: `page` holds 4096 bytes, `data` is the context of the entry. Length of the whole text or a negative error. */
int snbf_read_proc(char* page, char** start, plat_s64 offset, int count, int* eof, void* data);
/* Bytes taken or a negative error. */
int snbf_write_proc(void* file, plat_u64 from_user, unsigned long count, void* data);

PLAT_END_DECLS
#endif
