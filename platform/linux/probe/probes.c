// SPDX-License-Identifier: GPL-2.0-only
/*
 * What the target's headers have. Each part is compiled alone, with its name defined; where that
 * succeeds, SNBF_HAVE_ and the rest of the name is 1 in probes.h, else 0. A function is probed by
 * a pointer of its whole type: another one with the same name does not pass for it.
 */
#include <linux/blkdev.h>
#include <linux/device.h>
#include <linux/fs.h>

#ifdef PROBE_HEADERS /* a kernel's headers at all: the build ends where this fails */
struct block_device* probe_device;
#endif

#ifdef PROBE_CONST_DEVNODE /* 6.2: a class sees its devices as constant when it names their files */
static char* file_mode(const struct device* device, umode_t* mode) { return NULL; }
struct class probe_class = {.devnode = file_mode};
#endif

#ifdef PROBE_MOUNT_IDMAP /* 6.3: the mapping of a mount's user ids has a type of its own */
int (*probe_mknod)(struct mnt_idmap*, struct inode*, struct dentry*, umode_t, dev_t) = vfs_mknod;
#endif

#ifdef PROBE_CLASS_WITHOUT_OWNER /* 6.4 */
struct class* probe_class(void) {
  return class_create("name");
}
#endif

#ifdef PROBE_BLK_MODE /* 6.5: a mode of its own for block devices; open and release take the disk */
static int node_open(struct gendisk* disk, blk_mode_t mode) { return 0; }
static void node_release(struct gendisk* disk) {}
const struct block_device_operations probe_operations = {.open = node_open,
                                                         .release = node_release};
#endif

#ifdef PROBE_GET_BY_DEV_WITH_MODE /* up to 6.4 */
struct block_device* (*probe_open)(dev_t, fmode_t, void*) = blkdev_get_by_dev;
#endif

#ifdef PROBE_GET_BY_DEV_WITH_OPS /* 6.5 to 6.7: exclusive by its holder alone */
struct block_device* (*probe_open)(dev_t, blk_mode_t, void*,
                                   const struct blk_holder_ops*) = blkdev_get_by_dev;
#endif

#ifdef PROBE_BDEV_HANDLE /* 6.7 and 6.8: an opening is a handle */
struct bdev_handle* (*probe_open)(dev_t, blk_mode_t, void*,
                                  const struct blk_holder_ops*) = bdev_open_by_dev;
#endif

#ifdef PROBE_BDEV_FILE /* 6.9: an opening is a file */
struct file* (*probe_open)(dev_t, blk_mode_t, void*,
                           const struct blk_holder_ops*) = bdev_file_open_by_dev;
void (*probe_close)(struct file*) = bdev_fput;
#endif

#ifdef PROBE_BD_SUPER /* up to 6.5 */
struct super_block* probe_super(struct block_device* bdev) {
  return bdev->bd_super;
}
#endif

#ifdef PROBE_FS_HOLDER_OPS /* 6.6: a file system that is mounted is known by its operations */
bool probe_mounted(struct block_device* bdev) { return bdev->bd_holder_ops == &fs_holder_ops; }
#endif

#ifdef PROBE_BDEV_FREEZE /* 6.8: the name; and freezes of a device are counted by an atomic_t */
int (*probe_freeze)(struct block_device*) = bdev_freeze;
int probe_count(struct block_device* bdev) { return atomic_read(&bdev->bd_fsfreeze_count); }
#endif

#ifdef PROBE_DISK_WITH_LIMITS /* 6.9: the limits of a disk are given to it as it is made */
struct gendisk* probe_disk(struct queue_limits* limits, struct block_device* below) {
  queue_limits_stack_bdev(limits, below, 0, "");
  limits->dma_alignment = 0;
  return blk_alloc_disk(limits, NUMA_NO_NODE);
}
#endif

#ifdef PROBE_LIMIT_FEATURES /* 6.11: what were flags of the queue are features among the limits */
void probe_features(struct queue_limits* limits) {
  limits->features = BLK_FEAT_WRITE_CACHE | BLK_FEAT_FUA | BLK_FEAT_IO_STAT | BLK_FEAT_NOWAIT |
                     BLK_FEAT_POLL | BLK_FEAT_DAX;
}
#endif
