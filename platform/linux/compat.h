/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Where kernel versions differ: each difference in one place, and asked of the target's own headers.
 * probes.h says what they have, and probe/probes.c how that is found out.
 */
#ifndef SNBF_LINUX_COMPAT_H
#define SNBF_LINUX_COMPAT_H

#include <linux/blkdev.h>
#include <linux/device.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/rcupdate.h>

#include "probes.h"

#if SNBF_HAVE_CONST_DEVNODE
typedef const struct device snbf_devnode_device;
#else
typedef struct device snbf_devnode_device;
#endif

static inline struct class* snbf_class_create(const char* name) {
#if SNBF_HAVE_CLASS_WITHOUT_OWNER
  return class_create(name);
#else
  return class_create(THIS_MODULE, name);
#endif
}

#if SNBF_HAVE_MOUNT_IDMAP
#define snbf_mnt_ids(mount) mnt_idmap(mount)
#else
#define snbf_mnt_ids(mount) mnt_user_ns(mount)
#endif

/* 6.1 exports this for modules, but declares it for the kernel's own file system code alone. */
int vfs_path_lookup(struct dentry* dentry, struct vfsmount* mount, const char* name,
                    unsigned int flags, struct path* path);

#if SNBF_HAVE_BLK_MODE
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

/* An opening, and what it is closed by. One with a holder is exclusive. */
#if SNBF_HAVE_BDEV_FILE
typedef struct file snbf_bdev_handle;
static inline snbf_bdev_handle* snbf_bdev_open(dev_t device, snbf_blk_mode mode, void* holder) {
  return bdev_file_open_by_dev(device, mode, holder, NULL);
}
static inline struct block_device* snbf_bdev_of_handle(snbf_bdev_handle* handle) {
  return file_bdev(handle);
}
/* The last reference is ours: else the device would stay open until this task is back in user space. */
static inline void snbf_bdev_close(snbf_bdev_handle* handle, snbf_blk_mode mode, void* holder) {
  get_file(handle);
  bdev_fput(handle);
  __fput_sync(handle);
}
#elif SNBF_HAVE_BDEV_HANDLE
typedef struct bdev_handle snbf_bdev_handle;
static inline snbf_bdev_handle* snbf_bdev_open(dev_t device, snbf_blk_mode mode, void* holder) {
  return bdev_open_by_dev(device, mode, holder, NULL);
}
static inline struct block_device* snbf_bdev_of_handle(snbf_bdev_handle* handle) {
  return handle->bdev;
}
static inline void snbf_bdev_close(snbf_bdev_handle* handle, snbf_blk_mode mode, void* holder) {
  bdev_release(handle);
}
#elif SNBF_HAVE_GET_BY_DEV_WITH_OPS
typedef struct block_device snbf_bdev_handle;
static inline snbf_bdev_handle* snbf_bdev_open(dev_t device, snbf_blk_mode mode, void* holder) {
  return blkdev_get_by_dev(device, mode, holder, NULL);
}
static inline struct block_device* snbf_bdev_of_handle(snbf_bdev_handle* handle) { return handle; }
static inline void snbf_bdev_close(snbf_bdev_handle* handle, snbf_blk_mode mode, void* holder) {
  blkdev_put(handle, holder);
}
#elif SNBF_HAVE_GET_BY_DEV_WITH_MODE
typedef struct block_device snbf_bdev_handle;
static inline snbf_bdev_handle* snbf_bdev_open(dev_t device, snbf_blk_mode mode, void* holder) {
  return blkdev_get_by_dev(device, mode | (holder ? FMODE_EXCL : 0), holder);
}
static inline struct block_device* snbf_bdev_of_handle(snbf_bdev_handle* handle) { return handle; }
static inline void snbf_bdev_close(snbf_bdev_handle* handle, snbf_blk_mode mode, void* holder) {
  blkdev_put(handle, mode | (holder ? FMODE_EXCL : 0));
}
#else
#error "this kernel opens block devices in a way that snbf does not know"
#endif

/* Who holds a device, as a file system that is mounted on it does. */
static inline bool snbf_bdev_has_file_system(struct block_device* bdev) {
#if SNBF_HAVE_FS_HOLDER_OPS
  return READ_ONCE(bdev->bd_holder_ops) == &fs_holder_ops;
#elif SNBF_HAVE_BD_SUPER
  return READ_ONCE(bdev->bd_super) != NULL;
#else
#error "this kernel shows in no way that snbf knows whether a block device is mounted"
#endif
}

/*
 * What vfs_iter_write() does, but for the counting as a writer of the file system: some kernels
 * count there by themselves and some leave it to the caller, and no header tells which.
 */
static inline ssize_t snbf_iter_write(struct file* file, struct iov_iter* from, loff_t* at) {
  struct kiocb iocb;
  ssize_t rc;

  if (!(file->f_mode & FMODE_CAN_WRITE) || !file->f_op->write_iter) return -EINVAL;
  init_sync_kiocb(&iocb, file);
  iocb.ki_pos = *at;
  file_start_write(file);
  rc = file->f_op->write_iter(&iocb, from);
  file_end_write(file);
  if (rc > 0) *at = iocb.ki_pos;
  return rc;
}

static inline int snbf_bdev_freeze(struct block_device* bdev) {
#if SNBF_HAVE_BDEV_FREEZE
  return bdev_freeze(bdev);
#else
  return freeze_bdev(bdev);
#endif
}

/*
 * Where they are counted (6.8), freezes nest: one by hand and one of the device. But taking back one
 * of several is answered with -EINVAL, and the device then goes on counting it: no later freeze of it
 * would freeze anything. Before, so is taking back one that somebody has thawed by hand meanwhile, and
 * a device that counts a freeze cannot be mounted either.
 */
static inline int snbf_bdev_thaw(struct block_device* bdev) {
#if SNBF_HAVE_BDEV_FREEZE
  const int rc = bdev_thaw(bdev);

  if (rc != -EINVAL) return rc;
  mutex_lock(&bdev->bd_fsfreeze_mutex);
  atomic_dec_if_positive(&bdev->bd_fsfreeze_count);
  mutex_unlock(&bdev->bd_fsfreeze_mutex);
#else
  const int rc = thaw_bdev(bdev);

  if (rc != -EINVAL) return rc;
  mutex_lock(&bdev->bd_fsfreeze_mutex);
  if (bdev->bd_fsfreeze_count > 0 && --bdev->bd_fsfreeze_count == 0) bdev->bd_fsfreeze_sb = NULL;
  mutex_unlock(&bdev->bd_fsfreeze_mutex);
#endif
  return 0;
}

/* Not while it is only being mounted: a mount that fails must be able to let it go. */
static inline bool snbf_hold_super(struct super_block* sb) {
  return sb && (READ_ONCE(sb->s_flags) & SB_BORN) && atomic_inc_not_zero(&sb->s_active);
}

/*
 * The file system that is mounted on the device, kept alive as a mount keeps it; null if there is none, or one that
 * does not show its device (before 6.6, nilfs2).
 */
static inline struct super_block* snbf_bdev_hold_file_system(struct block_device* bdev) {
  struct super_block* sb = NULL;

#if SNBF_HAVE_FS_HOLDER_OPS
  mutex_lock(&bdev->bd_holder_lock);
  if (bdev->bd_holder_ops == &fs_holder_ops) sb = bdev->bd_holder;
  if (!snbf_hold_super(sb)) sb = NULL;
  mutex_unlock(&bdev->bd_holder_lock);
#else
  /* A super block is freed behind a grace period that begins after this pointer to it is gone. */
  rcu_read_lock();
  sb = READ_ONCE(bdev->bd_super);
  if (!snbf_hold_super(sb)) sb = NULL;
  rcu_read_unlock();
#endif
  return sb;
}

#if !SNBF_HAVE_LIMIT_FEATURES
/* What stacked limits do not hold. */
static inline void snbf_queue_flags(struct request_queue* queue, struct block_device* below) {
  blk_queue_write_cache(queue, true, true);
  blk_queue_flag_set(QUEUE_FLAG_IO_STAT, queue);
  if (bdev_nonrot(below)) blk_queue_flag_set(QUEUE_FLAG_NONROT, queue);
  if (bdev_stable_writes(below)) blk_queue_flag_set(QUEUE_FLAG_STABLE_WRITES, queue);
}
#endif

/*
 * Disk whose limits are those of `below`, and which always has a write cache and FUA: what the
 * device below does not need, its own queue drops. No NOWAIT, no polling. With `whole_blocks`, no
 * memory of a request begins or ends within a logical block. Null on failure.
 */
#if SNBF_HAVE_DISK_WITH_LIMITS
static inline struct gendisk* snbf_disk_create(struct block_device* below, bool whole_blocks) {
  struct queue_limits limits;
  struct gendisk* disk;

  blk_set_stacking_limits(&limits);
  queue_limits_stack_bdev(&limits, below, 0, "snbf");
  if (whole_blocks) limits.dma_alignment = max(limits.dma_alignment, limits.logical_block_size - 1);
#if SNBF_HAVE_LIMIT_FEATURES
  limits.features &= ~(BLK_FEAT_NOWAIT | BLK_FEAT_POLL | BLK_FEAT_DAX);
  limits.features |= BLK_FEAT_WRITE_CACHE | BLK_FEAT_FUA | BLK_FEAT_IO_STAT;
#endif
  disk = blk_alloc_disk(&limits, NUMA_NO_NODE);
  if (IS_ERR(disk)) return NULL;
#if !SNBF_HAVE_LIMIT_FEATURES
  snbf_queue_flags(disk->queue, below);
#endif
  return disk;
}
#else
static inline struct gendisk* snbf_disk_create(struct block_device* below, bool whole_blocks) {
  struct gendisk* disk = blk_alloc_disk(NUMA_NO_NODE);

  if (!disk) return NULL;
  blk_set_stacking_limits(&disk->queue->limits);
  disk_stack_limits(disk, below, 0);
  if (whole_blocks) blk_queue_update_dma_alignment(disk->queue, bdev_logical_block_size(below) - 1);
  snbf_queue_flags(disk->queue, below);
  return disk;
}
#endif

#endif
