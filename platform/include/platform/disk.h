/* SPDX-License-Identifier: GPL-2.0-only */
/* The disks that the nodes are, and the block major. Everything here may sleep. */
#ifndef SNBF_PLATFORM_DISK_H
#define SNBF_PLATFORM_DISK_H

#include "platform/types.h"

PLAT_BEGIN_DECLS

/* The major (0 asked for a free one, which is answered) or a negative error; 0 when a major given was granted. */
int snbf_plat_blkdev_register(int major, const char* name);
void snbf_plat_blkdev_unregister(int major, const char* name);

typedef struct plat_disk_params {
  const char* name;
  int major;
  int minor;
  plat_u64 sectors;
  plat_bdev* limits_from; /* whose queue limits the disk takes over */
  int whole_blocks;       /* non-zero: the memory of a request comes in whole logical blocks of the disk */
} plat_disk_params;

/*
 * Disk with one minor and its request queue, not visible yet; null on failure. Requests go to snbf_make_request. Waits
 * for a lock of the kernel whose holder may wait for a write to free memory: hold no lock that a request takes.
 */
plat_disk* snbf_plat_disk_alloc(const plat_disk_params* params);
/* Makes it visible; somebody may open it before this returns. 0 or a negative error: it was never visible then. */
int snbf_plat_disk_add(plat_disk* disk);
/*
 * Shows those who ask how devices lie on one another (lsblk) what it lies on; nothing depends on it. Waits for the
 * disk's open mutex, whose holder may be inside snbf_block_open: hold no lock that it takes.
 */
void snbf_plat_disk_link(plat_disk* disk);
void snbf_plat_disk_set_read_only(plat_disk* disk, int read_only);
/*
 * Takes it away: no open and no request begins any more, and those inside the driver have left when this
 * returns. It waits for the disk's open mutex, whose holder may be inside snbf_block_open waiting for the
 * driver's locks: hold none of them.
 */
void snbf_plat_disk_del(plat_disk* disk);
/* Frees it, added or not. */
void snbf_plat_disk_put(plat_disk* disk);

PLAT_END_DECLS
#endif
