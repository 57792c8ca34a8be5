/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What compat.h and its probes use of <linux/blkdev.h>, <linux/device.h>, <linux/file.h>, <linux/fs.h> and
 * <linux/rcupdate.h>, as each release from 6.1 to 6.12 declares it: RELEASE is 601 to 612.
 */
#ifndef KERNEL_IN_SMALL_H
#define KERNEL_IN_SMALL_H

#include <errno.h>
#include <stdbool.h>
#include <stddef.h>

typedef unsigned int umode_t, dev_t;
typedef unsigned int fmode_t;
typedef long ssize_t;
typedef long long loff_t;
typedef struct { int counter; } atomic_t;
struct iov_iter;
struct dentry;
struct device;
struct vfsmount;
struct path;
struct user_namespace;
struct mnt_idmap;
struct module;
struct inode;
struct mutex { int held; };
#define THIS_MODULE ((struct module*)0)
#define NUMA_NO_NODE (-1)
#define READ_ONCE(value) (value)
#define IS_ERR(pointer) ((unsigned long)(pointer) >= (unsigned long)-4095)
#define max(one, other) ((one) > (other) ? (one) : (other))
#define FMODE_READ 1u
#define FMODE_WRITE 2u
#define FMODE_EXCL 0x80u
#define FMODE_CAN_WRITE 0x40000u

int atomic_read(const atomic_t* value);
int atomic_dec_if_positive(atomic_t* value);
bool atomic_inc_not_zero(atomic_t* value);
void rcu_read_lock(void);
void rcu_read_unlock(void);
void mutex_lock(struct mutex* mutex);
void mutex_unlock(struct mutex* mutex);

/* <linux/fs.h> */
#define SB_BORN (1u << 29)
struct super_block {
  unsigned long s_flags;
  atomic_t s_active;
};
struct file_operations;
struct file {
  fmode_t f_mode;
  const struct file_operations* f_op;
};
struct kiocb {
  struct file* ki_filp;
  loff_t ki_pos;
};
struct file_operations {
  ssize_t (*write_iter)(struct kiocb*, struct iov_iter*);
};
void init_sync_kiocb(struct kiocb* iocb, struct file* file);
void file_start_write(struct file* file);
void file_end_write(struct file* file);
#if RELEASE >= 603
struct mnt_idmap* mnt_idmap(const struct vfsmount* mount);
int vfs_mknod(struct mnt_idmap*, struct inode*, struct dentry*, umode_t, dev_t);
#else
#if RELEASE >= 602
struct mnt_idmap* mnt_idmap(const struct vfsmount* mount);
#endif
struct user_namespace* mnt_user_ns(const struct vfsmount* mount);
int vfs_mknod(struct user_namespace*, struct inode*, struct dentry*, umode_t, dev_t);
#endif

/* <linux/device.h> */
struct class {
#if RELEASE >= 602
  char* (*devnode)(const struct device*, umode_t*);
#else
  char* (*devnode)(struct device*, umode_t*);
#endif
};
#if RELEASE >= 604
struct class* class_create(const char* name);
#else
struct class* owned_class_create(struct module* owner, const char* name);
#define class_create(owner, name) owned_class_create(owner, name)
#endif

/* <linux/blkdev.h> */
#if RELEASE >= 605
typedef unsigned int blk_mode_t;
#define BLK_OPEN_READ 1u
#define BLK_OPEN_WRITE 2u
struct blk_holder_ops { int any; };
#endif
struct block_device {
  struct gendisk* bd_disk;
#if RELEASE <= 605
  struct super_block* bd_super;
#endif
#if RELEASE >= 605
  void* bd_holder;
  const struct blk_holder_ops* bd_holder_ops;
  struct mutex bd_holder_lock;
#endif
  struct mutex bd_fsfreeze_mutex;
#if RELEASE >= 608
  atomic_t bd_fsfreeze_count;
#else
  int bd_fsfreeze_count;
  struct super_block* bd_fsfreeze_sb;
#endif
};
#if RELEASE >= 606
extern const struct blk_holder_ops fs_holder_ops;
#endif

#if RELEASE <= 604
struct block_device* blkdev_get_by_dev(dev_t, fmode_t, void*);
void blkdev_put(struct block_device*, fmode_t);
#elif RELEASE <= 607
struct block_device* blkdev_get_by_dev(dev_t, blk_mode_t, void*, const struct blk_holder_ops*);
void blkdev_put(struct block_device*, void*);
#endif
#if RELEASE == 607 || RELEASE == 608
struct bdev_handle {
  struct block_device* bdev;
  void* holder;
  blk_mode_t mode;
};
struct bdev_handle* bdev_open_by_dev(dev_t, blk_mode_t, void*, const struct blk_holder_ops*);
void bdev_release(struct bdev_handle*);
#endif
#if RELEASE >= 609
struct file* bdev_file_open_by_dev(dev_t, blk_mode_t, void*, const struct blk_holder_ops*);
struct block_device* file_bdev(struct file*);
void bdev_fput(struct file*);
struct file* get_file(struct file*);
void __fput_sync(struct file*);
#endif
#if RELEASE >= 608
int bdev_freeze(struct block_device*);
int bdev_thaw(struct block_device*);
#else
int freeze_bdev(struct block_device*);
int thaw_bdev(struct block_device*);
#endif

struct queue_limits {
#if RELEASE >= 611
  unsigned int features;
#endif
  unsigned int dma_alignment;
  unsigned int logical_block_size;
};
struct request_queue {
  struct queue_limits limits;
};
struct gendisk {
  struct block_device* part0;
  struct request_queue* queue;
};
struct block_device_operations {
#if RELEASE >= 605
  int (*open)(struct gendisk*, blk_mode_t);
  void (*release)(struct gendisk*);
#else
  int (*open)(struct block_device*, fmode_t);
  void (*release)(struct gendisk*, fmode_t);
#endif
};
unsigned int bdev_logical_block_size(struct block_device*);
void blk_set_stacking_limits(struct queue_limits*);
#if RELEASE >= 609
struct gendisk* disk_with_limits(struct queue_limits*, int node);
#define blk_alloc_disk(limits, node) disk_with_limits(limits, node)
void queue_limits_stack_bdev(struct queue_limits*, struct block_device*, unsigned long, const char*);
#else
struct gendisk* disk_on_node(int node);
#define blk_alloc_disk(node) disk_on_node(node)
void disk_stack_limits(struct gendisk*, struct block_device*, unsigned long long);
void blk_queue_update_dma_alignment(struct request_queue*, int);
#endif
#if RELEASE >= 611
enum { BLK_FEAT_WRITE_CACHE = 1, BLK_FEAT_FUA = 2, BLK_FEAT_IO_STAT = 4, BLK_FEAT_NOWAIT = 8,
       BLK_FEAT_POLL = 16, BLK_FEAT_DAX = 32 };
#else
enum { QUEUE_FLAG_IO_STAT, QUEUE_FLAG_NONROT, QUEUE_FLAG_STABLE_WRITES };
void blk_queue_write_cache(struct request_queue*, bool, bool);
void blk_queue_flag_set(unsigned int, struct request_queue*);
bool bdev_nonrot(struct block_device*);
bool bdev_stable_writes(struct block_device*);
#endif

#endif
