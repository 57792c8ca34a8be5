// SPDX-License-Identifier: GPL-2.0-only
/*
 * Freezes of the file system on a device.
 *
 * Anybody may thaw it by hand meanwhile and unmount it, and the kernel would thaw freed memory. So it is
 * kept alive until it is thawed. Whoever lets it go last also unmounts it, which closes its device: if that
 * is us, then in a task of its own, for the driver thaws under locks that its own closing takes.
 */
#include "freeze.h"

#include <linux/fs.h>
#include <linux/list.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/workqueue.h>

#include "compat.h"
#include "platform/block.h"

struct freeze {
  struct list_head link;
  struct block_device* bdev;
  struct super_block* kept; /* null: none was mounted */
  struct work_struct unmount;
};

static LIST_HEAD(freezes);
static DEFINE_SPINLOCK(freezes_lock);

/* Of its own: an unmount waits for what the driver has run as the kernel. */
static struct workqueue_struct* unmounts;

int snbf_freezes_init(void) {
  unmounts = alloc_workqueue("snbf-unmount", WQ_UNBOUND, 0);
  return unmounts ? 0 : -ENOMEM;
}

void snbf_freezes_exit(void) { destroy_workqueue(unmounts); }

static void let_go_last(struct work_struct* work) {
  struct freeze* freeze = container_of(work, struct freeze, unmount);

  deactivate_super(freeze->kept);
  kfree(freeze);
}

static void let_go(struct freeze* freeze) {
  if (freeze->kept && !atomic_add_unless(&freeze->kept->s_active, -1, 1)) {
    queue_work(unmounts, &freeze->unmount);
    return;
  }
  kfree(freeze);
}

/*
 * The freeze shuts writers out and only then writes what is dirty. Most of that is written here first, while they
 * go on. What fails is the freeze's to tell. One that is frozen by hand has nothing dirty, and is not kept from its
 * thaw.
 */
static void write_back(struct super_block* sb) {
  down_read(&sb->s_umount);
  if (sb->s_writers.frozen == SB_UNFROZEN) sync_filesystem(sb);
  up_read(&sb->s_umount);
}

int snbf_plat_bdev_freeze(plat_bdev* device) {
  struct block_device* bdev = (struct block_device*)device;
  struct freeze* freeze = kmalloc(sizeof(*freeze), GFP_KERNEL | __GFP_NOFAIL);
  int rc;

  INIT_WORK(&freeze->unmount, let_go_last);
  freeze->bdev = bdev;
  freeze->kept = snbf_bdev_hold_file_system(bdev);
  if (freeze->kept) write_back(freeze->kept);
  rc = snbf_bdev_freeze(bdev);
  if (rc != 0) {
    let_go(freeze);
    return rc;
  }
  /* It may have been mounted only now: the freeze waits for a mount that is under way. */
  if (!freeze->kept) freeze->kept = snbf_bdev_hold_file_system(bdev);
  spin_lock(&freezes_lock);
  list_add(&freeze->link, &freezes);
  spin_unlock(&freezes_lock);
  return 0;
}

/* No longer listed. Freezes of one device nest, and any of them stands for any other. */
static struct freeze* take_freeze(struct block_device* bdev) {
  struct freeze* found = NULL;
  struct freeze* each;

  spin_lock(&freezes_lock);
  list_for_each_entry(each, &freezes, link) {
    if (each->bdev == bdev) {
      found = each;
      list_del(&found->link);
      break;
    }
  }
  spin_unlock(&freezes_lock);
  return found;
}

int snbf_plat_bdev_thaw(plat_bdev* device) {
  struct block_device* bdev = (struct block_device*)device;
  struct freeze* freeze = take_freeze(bdev);
  int rc;

  if (WARN_ON(!freeze)) return -EINVAL;
  rc = snbf_bdev_thaw(bdev);
  let_go(freeze);
  return rc;
}
