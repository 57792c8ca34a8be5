/* SPDX-License-Identifier: GPL-2.0-only */
/* Where kernel versions differ: each difference in one place. Supported: 6.1 and 6.12. */
#ifndef SNBF_LINUX_COMPAT_H
#define SNBF_LINUX_COMPAT_H

#include <linux/blkdev.h>
#include <linux/device.h>
#include <linux/fs.h>
#include <linux/version.h>

#if LINUX_VERSION_CODE < KERNEL_VERSION(6, 1, 0)
#error "snbf needs Linux 6.1 or later"
#elif LINUX_VERSION_CODE >= KERNEL_VERSION(6, 5, 0) && LINUX_VERSION_CODE < KERNEL_VERSION(6, 11, 0)
#error "snbf supports Linux 6.1 to 6.4, and 6.11 onwards"
#endif

/* 6.2: a class sees its devices as constant when it names their files. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 2, 0)
typedef const struct device snbf_devnode_device;
#else
typedef struct device snbf_devnode_device;
#endif

/* 6.4: a class has no owner. */
static inline struct class* snbf_class_create(const char* name) {
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 4, 0)
  return class_create(name);
#else
  return class_create(THIS_MODULE, name);
#endif
}

/* 6.3: the mapping of a mount's user ids has a type of its own. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 3, 0)
#define snbf_mnt_ids(mount) mnt_idmap(mount)
#else
#define snbf_mnt_ids(mount) mnt_user_ns(mount)
#endif

/* 6.1 exports this for modules, but declares it for the kernel's own file system code alone. */
int vfs_path_lookup(struct dentry* dentry, struct vfsmount* mount, const char* name,
                    unsigned int flags, struct path* path);

/* 6.5: block devices are opened with a mode type of their own; open and release take the disk. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 5, 0)
typedef blk_mode_t snbf_blk_mode;
#define SNBF_BLK_READ BLK_OPEN_READ
#define SNBF_BLK_WRITE BLK_OPEN_WRITE
#define SNBF_RELEASE_MODE
typedef struct gendisk snbf_blk_opened;
static inline struct block_device* snbf_opened_bdev(struct gendisk* disk) { return disk->part0; }
#else
typedef fmode_t snbf_blk_mode;
#define SNBF_BLK_READ FMODE_READ
#define SNBF_BLK_WRITE FMODE_WRITE
#define SNBF_RELEASE_MODE , fmode_t mode
typedef struct block_device snbf_blk_opened;
static inline struct block_device* snbf_opened_bdev(struct block_device* bdev) { return bdev; }
#endif

/* 6.9: an opened block device is a file. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 9, 0)
typedef struct file snbf_bdev_handle;
static inline snbf_bdev_handle* snbf_bdev_open(dev_t device, snbf_blk_mode mode, void* holder) {
  return bdev_file_open_by_dev(device, mode, holder, NULL);
}
static inline struct block_device* snbf_bdev_of_handle(snbf_bdev_handle* handle) {
  return file_bdev(handle);
}
static inline void snbf_bdev_close(snbf_bdev_handle* handle, snbf_blk_mode mode, void* holder) {
  bdev_fput(handle);
}
#else
typedef struct block_device snbf_bdev_handle;
static inline snbf_bdev_handle* snbf_bdev_open(dev_t device, snbf_blk_mode mode, void* holder) {
  return blkdev_get_by_dev(device, mode | (holder ? FMODE_EXCL : 0), holder);
}
static inline struct block_device* snbf_bdev_of_handle(snbf_bdev_handle* handle) { return handle; }
static inline void snbf_bdev_close(snbf_bdev_handle* handle, snbf_blk_mode mode, void* holder) {
  blkdev_put(handle, mode | (holder ? FMODE_EXCL : 0));
}
#endif

/* Who holds a device, as a file system that is mounted on it does. */
static inline bool snbf_bdev_has_file_system(struct block_device* bdev) {
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 6, 0)
  return READ_ONCE(bdev->bd_holder_ops) == &fs_holder_ops;
#else
  return READ_ONCE(bdev->bd_super) != NULL;
#endif
}

/* 6.8: counted as a writer of its file system by itself; before, by its caller. */
static inline ssize_t snbf_iter_write(struct file* file, struct iov_iter* from, loff_t* at) {
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 8, 0)
  return vfs_iter_write(file, from, at, 0);
#else
  ssize_t rc;

  file_start_write(file);
  rc = vfs_iter_write(file, from, at, 0);
  file_end_write(file);
  return rc;
#endif
}

static inline int snbf_bdev_freeze(struct block_device* bdev) {
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 8, 0)
  return bdev_freeze(bdev);
#else
  return freeze_bdev(bdev);
#endif
}

/*
 * Since 6.8 freezes nest: one by hand and one of the device. But taking back one of several is answered with
 * -EINVAL, and the device then goes on counting it: no later freeze of it would freeze anything.
 */
static inline int snbf_bdev_thaw(struct block_device* bdev) {
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 8, 0)
  const int rc = bdev_thaw(bdev);

  if (rc != -EINVAL) return rc;
  mutex_lock(&bdev->bd_fsfreeze_mutex);
  atomic_dec_if_positive(&bdev->bd_fsfreeze_count);
  mutex_unlock(&bdev->bd_fsfreeze_mutex);
  return 0;
#else
  return thaw_bdev(bdev);
#endif
}

/*
 * Disk whose limits are those of `below`, and which always has a write cache and FUA: what the
 * device below does not need, its own queue drops. No NOWAIT, no polling. With `whole_blocks`, no
 * memory of a request begins or ends within a logical block. Null on failure.
 */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 11, 0)
static inline struct gendisk* snbf_disk_create(struct block_device* below, bool whole_blocks) {
  struct queue_limits limits;
  struct gendisk* disk;

  blk_set_stacking_limits(&limits);
  queue_limits_stack_bdev(&limits, below, 0, "snbf");
  limits.features &= ~(BLK_FEAT_NOWAIT | BLK_FEAT_POLL | BLK_FEAT_DAX);
  limits.features |= BLK_FEAT_WRITE_CACHE | BLK_FEAT_FUA | BLK_FEAT_IO_STAT;
  if (whole_blocks) limits.dma_alignment = max(limits.dma_alignment, limits.logical_block_size - 1);
  disk = blk_alloc_disk(&limits, NUMA_NO_NODE);
  return IS_ERR(disk) ? NULL : disk;
}
#else
static inline struct gendisk* snbf_disk_create(struct block_device* below, bool whole_blocks) {
  struct gendisk* disk = blk_alloc_disk(NUMA_NO_NODE);

  if (!disk) return NULL;
  blk_set_stacking_limits(&disk->queue->limits);
  disk_stack_limits(disk, below, 0);
  if (whole_blocks) blk_queue_update_dma_alignment(disk->queue, bdev_logical_block_size(below) - 1);
  blk_queue_write_cache(disk->queue, true, true);
  blk_queue_flag_set(QUEUE_FLAG_IO_STAT, disk->queue);
  if (bdev_nonrot(below)) blk_queue_flag_set(QUEUE_FLAG_NONROT, disk->queue);
  if (bdev_stable_writes(below)) blk_queue_flag_set(QUEUE_FLAG_STABLE_WRITES, disk->queue);
  return disk;
}
#endif

#endif
