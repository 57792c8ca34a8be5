// SPDX-License-Identifier: GPL-2.0-only
/* Everything that compat.h declares, used as the rest of platform/linux uses it. */
#include "compat.h"

_Static_assert(SNBF_BLK_READ == 1 && SNBF_BLK_WRITE == 2,
               "a mode passes through the driver unchanged");

static int node_open(snbf_blk_opened* opened, snbf_blk_mode mode) {
  return snbf_opened_bdev(opened) == NULL;
}
static void node_release(struct gendisk* disk SNBF_RELEASE_MODE) {}
const struct block_device_operations operations = {.open = node_open, .release = node_release};

static char* file_mode(snbf_devnode_device* device, umode_t* mode) { return NULL; }

int use(struct block_device* bdev, struct file* file, struct iov_iter* from, loff_t* at,
        const struct vfsmount* mount) {
  snbf_bdev_handle* handle = snbf_bdev_open(1, SNBF_BLK_READ, file);

  if (snbf_bdev_of_handle(handle) != bdev) return 1;
  snbf_bdev_close(handle, SNBF_BLK_READ, file);
  snbf_class_create("snbf")->devnode = file_mode;
  if (vfs_mknod(snbf_mnt_ids(mount), NULL, NULL, 0, 0) != 0) return 1;
  if (snbf_bdev_freeze(bdev) != 0 || snbf_bdev_thaw(bdev) != 0) return 1;
  if (!snbf_bdev_hold_file_system(bdev)) return 1;
  if (!snbf_disk_create(bdev, true)) return 1;
  return snbf_bdev_has_file_system(bdev) && snbf_iter_write(file, from, at) > 0;
}
