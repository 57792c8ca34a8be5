// SPDX-License-Identifier: GPL-2.0-only
/*
 * The disks that the nodes are.
 *
 * Their operations have no owner: the driver takes the module's reference in its open. So the
 * kernel may still read the operations of a disk that was just closed, or look at a deleted one
 * that it is about to open, while the module is on its way out. Therefore putting a disk waits
 * until its last reference is gone (wait_until_freed), and unload, which puts every disk, cannot
 * free the text early.
 */
#include "platform/disk.h"

#include <linux/blkdev.h>
#include <linux/completion.h>
#include <linux/major.h>
#include <linux/slab.h>

#include "bio.h"
#include "compat.h"
#include "module.h"
#include "platform/entry.h"
#include "platform/task.h"

struct plat_disk {
  struct gendisk* gendisk;
  struct block_device* below; /* pinned by its device */
  bool added;
  bool linked; /* below shows it as its holder in sysfs */
  struct task_struct* freed_by;
  struct completion freed;
};

static int node_open(snbf_blk_opened* opened, snbf_blk_mode mode) {
  struct block_device* bdev = snbf_opened_bdev(opened);

  return snbf_block_open((plat_bdev*)bdev, disk_devt(bdev->bd_disk));
}

static void node_release(struct gendisk* gendisk SNBF_RELEASE_MODE) {
  snbf_block_release(disk_devt(gendisk));
}

static int node_ioctl(struct block_device* bdev, snbf_blk_mode mode, unsigned int cmd,
                      unsigned long arg) {
  return snbf_block_ioctl(disk_devt(bdev->bd_disk), (__force int)mode, cmd, arg);
}

static void node_freed(struct gendisk* gendisk) {
  struct plat_disk* disk = gendisk->private_data;

  disk->freed_by = current;
  complete(&disk->freed);
}

static const struct block_device_operations node_operations = {
    .submit_bio = snbf_node_submit_bio,
    .open = node_open,
    .release = node_release,
    .ioctl = node_ioctl,
    .free_disk = node_freed,
};

int snbf_plat_blkdev_register(int major, const char* name) { return register_blkdev(major, name); }

void snbf_plat_blkdev_unregister(int major, const char* name) { unregister_blkdev(major, name); }

static plat_disk* alloc_disk(const plat_disk_params* params) {
  struct plat_disk* disk = kzalloc(sizeof(*disk), GFP_KERNEL);
  struct gendisk* gendisk;

  if (!disk) return NULL;
  disk->below = (struct block_device*)params->limits_from;
  gendisk = snbf_disk_create(disk->below, params->whole_blocks);
  if (!gendisk) {
    kfree(disk);
    return NULL;
  }
  gendisk->major = params->major;
  gendisk->first_minor = params->minor;
  gendisk->minors = 1;
  gendisk->flags |= GENHD_FL_NO_PART;
  gendisk->fops = &node_operations;
  gendisk->private_data = disk;
  strscpy(gendisk->disk_name, params->name, DISK_NAME_LEN);
  set_capacity(gendisk, params->sectors);
  get_device(&disk->below->bd_device);
  init_completion(&disk->freed);
  disk->gendisk = gendisk;
  return disk;
}

struct disk_call {
  const plat_disk_params* params;
  plat_disk* disk;
};

static void run_disk_call(void* argument) {
  struct disk_call* call = argument;

  call->disk = alloc_disk(call->params);
}

/* By the kernel itself: a task that is being killed gets no memory for a disk, though there is some. */
plat_disk* snbf_plat_disk_alloc(const plat_disk_params* params) {
  struct disk_call call = {.params = params};

  snbf_plat_run_as_kernel(run_disk_call, &call);
  return call.disk;
}

int snbf_plat_disk_add(plat_disk* disk) {
  const int rc = device_add_disk(NULL, disk->gendisk, NULL);

  if (rc != 0) return rc;
  disk->added = true;
  return 0;
}

void snbf_plat_disk_link(plat_disk* disk) {
  if (disk->below->bd_holder) disk->linked = bd_link_disk_holder(disk->below, disk->gendisk) == 0;
}

void snbf_plat_disk_set_read_only(plat_disk* disk, int read_only) {
  set_disk_ro(disk->gendisk, read_only);
}

void snbf_plat_disk_del(plat_disk* disk) {
  if (disk->linked) bd_unlink_disk_holder(disk->below, disk->gendisk);
  disk->linked = false;
  del_gendisk(disk->gendisk);
}

static void wait_until_freed(struct plat_disk* disk) {
  wait_for_completion(&disk->freed);
  if (disk->freed_by != current) snbf_expect_stragglers();
}

void snbf_plat_disk_put(plat_disk* disk) {
  put_disk(disk->gendisk);
  if (disk->added) wait_until_freed(disk);
  put_device(&disk->below->bd_device);
  kfree(disk);
}
