// SPDX-License-Identifier: GPL-2.0-only
/*
 * Block devices. A plat_bdev is the kernel's block device: the same for every opening of it, and
 * the same as the one that a node's opener gets. What an opening is to be closed by is kept in a
 * list here.
 */
#include "platform/block.h"

#include <linux/blk-mq.h>
#include <linux/blkdev.h>
#include <linux/list.h>
#include <linux/major.h>
#include <linux/slab.h>
#include <linux/spinlock.h>

#include "compat.h"

/* A mode passes through the driver unchanged. */
static_assert(PLAT_MODE_READ == (__force unsigned)(snbf_blk_mode)SNBF_BLK_READ);
static_assert(PLAT_MODE_WRITE == (__force unsigned)(snbf_blk_mode)SNBF_BLK_WRITE);

struct opening {
  struct list_head link;
  snbf_bdev_handle* handle;
  void* holder; /* null: shared */
};

static LIST_HEAD(openings);
static DEFINE_SPINLOCK(openings_lock);

static struct block_device* bdev_of(plat_bdev* bdev) { return (struct block_device*)bdev; }

int snbf_plat_bdev_open(plat_devt device, int mode, plat_open_kind kind, void* holder,
                        plat_bdev** bdev) {
  struct opening* opening = kmalloc(sizeof(*opening), GFP_KERNEL);

  if (!opening) return -ENOMEM;
  opening->holder = kind == PLAT_OPEN_EXCLUSIVE ? holder : NULL;
  opening->handle = snbf_bdev_open(device, (__force snbf_blk_mode)mode, opening->holder);
  if (IS_ERR(opening->handle)) {
    const int rc = PTR_ERR(opening->handle);

    kfree(opening);
    return rc;
  }
  *bdev = (plat_bdev*)snbf_bdev_of_handle(opening->handle);
  /* From here on it is anybody's: of two shared openings of a device each close takes the one that it finds. */
  spin_lock(&openings_lock);
  list_add(&opening->link, &openings);
  spin_unlock(&openings_lock);
  return 0;
}

/* The opening, no longer listed; null if there is none such. */
static struct opening* take_opening(struct block_device* bdev, void* holder) {
  struct opening* found = NULL;
  struct opening* each;

  spin_lock(&openings_lock);
  list_for_each_entry(each, &openings, link) {
    if (snbf_bdev_of_handle(each->handle) == bdev && each->holder == holder) {
      found = each;
      list_del(&found->link);
      break;
    }
  }
  spin_unlock(&openings_lock);
  return found;
}

int snbf_plat_bdev_close(plat_bdev* bdev, plat_open_kind kind, int mode, void* holder) {
  struct opening* opening =
      take_opening(bdev_of(bdev), kind == PLAT_OPEN_EXCLUSIVE ? holder : NULL);

  if (WARN_ON(!opening)) return -EINVAL;
  snbf_bdev_close(opening->handle, (__force snbf_blk_mode)mode, opening->holder);
  kfree(opening);
  return 0;
}

int snbf_plat_bdev_is_mounted(plat_bdev* bdev) { return snbf_bdev_has_file_system(bdev_of(bdev)); }

int snbf_plat_bdev_openers(plat_bdev* bdev) { return atomic_read(&bdev_of(bdev)->bd_openers); }

plat_u64 snbf_plat_bdev_bytes(plat_bdev* bdev) { return bdev_nr_bytes(bdev_of(bdev)); }

plat_u32 snbf_plat_bdev_block_bytes(plat_bdev* bdev) {
  return bdev_logical_block_size(bdev_of(bdev));
}

plat_devt snbf_plat_bdev_device(plat_bdev* bdev) { return bdev_of(bdev)->bd_dev; }

int snbf_plat_bdev_is_zoned(plat_bdev* bdev) { return bdev_is_zoned(bdev_of(bdev)); }

/* The queue of a bio-based device counts nothing that is under way; of those, the RAM disk is done at once. */
int snbf_plat_bdev_can_drain(plat_bdev* bdev) {
  struct block_device* device = bdev_of(bdev);

  return queue_is_mq(bdev_get_queue(device)) || MAJOR(device->bd_dev) == RAMDISK_MAJOR;
}

int snbf_plat_bdev_drain(plat_bdev* bdev, plat_u32 limit_ms) {
  struct request_queue* queue = bdev_get_queue(bdev_of(bdev));
  int left;

  if (!queue_is_mq(queue)) return 0;
  blk_freeze_queue_start(queue);
  left = blk_mq_freeze_queue_wait_timeout(queue, msecs_to_jiffies(limit_ms));
  blk_mq_unfreeze_queue(queue);
  return left > 0 ? 0 : -ETIMEDOUT;
}

int snbf_plat_bdev_ioctl(plat_bdev* bdev, int mode, unsigned cmd, unsigned long arg) {
  const struct block_device_operations* ops = bdev_of(bdev)->bd_disk->fops;

  if (!ops->ioctl) return 0;
  return ops->ioctl(bdev_of(bdev), (__force snbf_blk_mode)mode, cmd, arg);
}
