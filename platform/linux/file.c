// SPDX-License-Identifier: GPL-2.0-only
/* Files and paths, from the root of the init task. */
#include "platform/file.h"

#include <linux/blkdev.h>
#include <linux/completion.h>
#include <linux/dcache.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/fs_struct.h>
#include <linux/mount.h>
#include <linux/namei.h>
#include <linux/sched/task.h>
#include <linux/slab.h>
#include <linux/uio.h>

#include "compat.h"

static_assert(PLAT_O_RDONLY == O_RDONLY && PLAT_O_WRONLY == O_WRONLY && PLAT_O_RDWR == O_RDWR);
static_assert(PLAT_O_ACCMODE == O_ACCMODE && PLAT_O_CREAT == O_CREAT && PLAT_O_TRUNC == O_TRUNC);
static_assert(PLAT_O_EXCL == O_EXCL);
static_assert(PLAT_S_IFMT == S_IFMT && PLAT_S_IFBLK == S_IFBLK && PLAT_S_IFCHR == S_IFCHR);

struct plat_path {
  struct path path;
  struct name_snapshot name;
};

/* The init task shares its root with the kernel's first task, which is always there. */
static void get_init_root(struct path* root) {
  task_lock(&init_task);
  get_fs_root(init_task.fs, root);
  task_unlock(&init_task);
}

static int lookup(const char* name, unsigned int flags, struct path* path) {
  struct path root;
  int rc;

  get_init_root(&root);
  rc = vfs_path_lookup(root.dentry, root.mnt, name, flags, path);
  path_put(&root);
  return rc;
}

int snbf_plat_file_open(const char* path, int flags, int mode, plat_file** file) {
  int open_flags = (flags & (O_ACCMODE | O_CREAT | O_EXCL | O_TRUNC)) | O_LARGEFILE;
  struct path root;
  struct file* opened;

  if (flags & PLAT_O_SYNC) open_flags |= O_SYNC;
  get_init_root(&root);
  opened = file_open_root(&root, path, open_flags, mode);
  path_put(&root);
  if (IS_ERR(opened)) return PTR_ERR(opened);
  *file = (plat_file*)opened;
  return 0;
}

int snbf_plat_file_close(plat_file* file) {
  struct file* open = (struct file*)file;
  int rc;

  if (!(current->flags & PF_KTHREAD)) return filp_close(open, NULL);
  /* A kernel thread's last reference would be dropped later, by a worker: the file system would
   * still be busy when the thread has long reported that it is done. */
  get_file(open);
  rc = filp_close(open, NULL);
  __fput_sync(open);
  return rc;
}

plat_s64 snbf_plat_file_read(plat_file* file, plat_u64 position, void* to, plat_size bytes) {
  loff_t at = position;

  return kernel_read((struct file*)file, to, bytes, &at);
}

plat_s64 snbf_plat_file_write(plat_file* file, plat_u64 position, const void* from,
                              plat_size bytes) {
  loff_t at = position;

  return kernel_write((struct file*)file, from, bytes, &at);
}

#define PAGES_A_CALL 16

plat_s64 snbf_plat_file_write_pages(plat_file* file, plat_u64 position, void* const* pages,
                                    plat_size bytes) {
  struct bio_vec pieces[PAGES_A_CALL];
  struct iov_iter from;
  loff_t at = position;
  plat_size taken = 0;
  unsigned int count = 0;

  while (taken < bytes && count < PAGES_A_CALL) {
    const unsigned int piece = min_t(plat_size, bytes - taken, PAGE_SIZE);

    pieces[count].bv_page = virt_to_page(pages[count]);
    pieces[count].bv_offset = 0;
    pieces[count].bv_len = piece;
    taken += piece;
    ++count;
  }
  iov_iter_bvec(&from, WRITE, pieces, count, taken);
  return snbf_iter_write((struct file*)file, &from, &at);
}

struct direct_write {
  struct kiocb iocb;
  struct plat_direct_batch* batch;
  plat_s64* result;
};

struct plat_direct_batch {
  struct completion all_done;
  atomic_t outstanding;
  struct bio_vec* pages; /* requests refer to them until they are done */
  struct direct_write writes[];
};

plat_direct_batch* snbf_plat_direct_batch_make(int pieces_max, int pages_max) {
  struct plat_direct_batch* batch = NULL;
  struct bio_vec* pages = kvcalloc(pages_max, sizeof(*pages), GFP_NOIO);

  if (pages) batch = kvzalloc(struct_size(batch, writes, pieces_max), GFP_NOIO);
  if (!batch) {
    kvfree(pages);
    return NULL;
  }
  batch->pages = pages;
  return batch;
}

void snbf_plat_direct_batch_free(plat_direct_batch* batch) {
  if (!batch) return;
  kvfree(batch->pages);
  kvfree(batch);
}

static void end_direct_write(struct kiocb* iocb, long result) {
  struct direct_write* write = container_of(iocb, struct direct_write, iocb);
  struct plat_direct_batch* batch = write->batch;

  *write->result = result;
  if (atomic_dec_and_test(&batch->outstanding)) complete(&batch->all_done);
}

static void begin_direct_write(struct file* open, struct direct_write* write, struct bio_vec* pages,
                               plat_file_piece* piece) {
  const unsigned int count = piece->bytes / PAGE_SIZE;
  struct iov_iter from;
  ssize_t rc;
  unsigned int i;

  for (i = 0; i < count; ++i) {
    pages[i].bv_page = virt_to_page(piece->pages[i]);
    pages[i].bv_offset = 0;
    pages[i].bv_len = PAGE_SIZE;
  }
  iov_iter_bvec(&from, WRITE, pages, count, piece->bytes);
  init_sync_kiocb(&write->iocb, open);
  write->iocb.ki_pos = piece->position;
  /* Not the flags of the handle: a sync follows. */
  write->iocb.ki_flags = IOCB_DIRECT;
  write->iocb.ki_complete = end_direct_write;
  write->result = &piece->result;
  rc = open->f_op->write_iter(&write->iocb, &from);
  if (rc != -EIOCBQUEUED) end_direct_write(&write->iocb, rc);
}

/*
 * What runs elsewhere. The end of such a write may need the file system's journal (ext4 and XFS
 * turn unwritten blocks into written ones), and then runs in a worker of theirs, without the
 * caller's flags. Its allocations keep to GFP_NOFS, as those of the journal's own thread do, which
 * every sync waits for as well: so a write of this kind waits for nothing that the sync behind it
 * would not. The writer is counted as such until all are done: no freeze comes in between, and no
 * worker waits for a thaw.
 */
void snbf_plat_file_write_direct(plat_file* file, plat_direct_batch* batch, plat_file_piece* pieces,
                                 int count) {
  struct file* open = (struct file*)file;
  struct bio_vec* pages = batch->pages;
  struct blk_plug plug;
  int i;

  if (!(open->f_mode & FMODE_CAN_ODIRECT) || !open->f_op->write_iter) {
    for (i = 0; i < count; ++i) pieces[i].result = -EINVAL;
    return;
  }
  init_completion(&batch->all_done);
  atomic_set(&batch->outstanding, count + 1);
  file_start_write(open);
  blk_start_plug(&plug);
  for (i = 0; i < count; ++i) {
    batch->writes[i].batch = batch;
    begin_direct_write(open, &batch->writes[i], pages, &pieces[i]);
    pages += pieces[i].bytes / PAGE_SIZE;
  }
  blk_finish_plug(&plug);
  if (!atomic_dec_and_test(&batch->outstanding)) wait_for_completion_io(&batch->all_done);
  file_end_write(open);
}

int snbf_plat_file_sync(plat_file* file) {
  struct file* open = (struct file*)file;

  return open->f_op->fsync ? vfs_fsync(open, 1) : 0;
}

plat_u64 snbf_plat_file_size(plat_file* file) {
  return i_size_read(((struct file*)file)->f_mapping->host);
}

int snbf_plat_path_lookup(const char* path, int follow, plat_path** found) {
  struct plat_path* result = kmalloc(sizeof(*result), GFP_KERNEL);
  int rc;

  if (!result) return -ENOMEM;
  rc = lookup(path, follow ? LOOKUP_FOLLOW : 0, &result->path);
  if (rc != 0) {
    kfree(result);
    return rc;
  }
  take_dentry_name_snapshot(&result->name, result->path.dentry);
  *found = result;
  return 0;
}

void snbf_plat_path_put(plat_path* path) {
  release_dentry_name_snapshot(&path->name);
  path_put(&path->path);
  kfree(path);
}

void snbf_plat_path_info(const plat_path* path, plat_path_info* info) {
  const struct dentry* dentry = path->path.dentry;
  const struct inode* inode = d_inode(dentry);

  memset(info, 0, sizeof(*info));
  info->entry = dentry;
  info->name = path->name.name.name;
  if (!inode) return;
  info->has_inode = 1;
  info->mode = inode->i_mode;
  info->device = inode->i_rdev;
  if (inode->i_sb->s_bdev) info->store_device = inode->i_sb->s_bdev->bd_dev;
  info->file_system = inode->i_sb->s_dev;
  info->inode_number = inode->i_ino;
  info->inode = inode;
}

/* A name on its way to be created or removed; its folder is locked. */
struct plat_parent {
  struct path folder;
  struct dentry* child;   /* null until looked up */
  struct inode* unlinked; /* kept until the folder is unlocked: the last put may take long */
  const char* last;       /* within path_copy */
  size_t last_length;
  bool trailing_slash;
  int write_error; /* of the mount: answered once the name is known to be good */
  char path_copy[];
};

/* Cuts the copy in two at its last component. */
static void split_last(struct plat_parent* parent) {
  char* end = parent->path_copy + strlen(parent->path_copy);
  char* last;

  while (end > parent->path_copy && end[-1] == '/') {
    *--end = '\0';
    parent->trailing_slash = true;
  }
  last = end;
  while (last > parent->path_copy && last[-1] != '/') --last;
  parent->last = last;
  parent->last_length = end - last;
}

static int lookup_folder(struct plat_parent* parent) {
  const size_t length = parent->last - parent->path_copy;
  char* name = kstrndup(parent->path_copy, length, GFP_KERNEL);
  int rc;

  if (!name) return -ENOMEM;
  rc = lookup(length > 0 ? name : "/", LOOKUP_FOLLOW | LOOKUP_DIRECTORY, &parent->folder);
  kfree(name);
  return rc;
}

int snbf_plat_parent_lock(const char* path, plat_parent** parent) {
  const size_t length = strlen(path);
  struct plat_parent* result = kzalloc(struct_size(result, path_copy, length + 1), GFP_KERNEL);
  int rc;

  if (!result) return -ENOMEM;
  memcpy(result->path_copy, path, length + 1);
  split_last(result);
  rc = lookup_folder(result);
  if (rc != 0) {
    kfree(result);
    return rc;
  }
  /* Before the lock: it may wait for a frozen file system. */
  result->write_error = mnt_want_write(result->folder.mnt);
  inode_lock_nested(d_inode(result->folder.dentry), I_MUTEX_PARENT);
  *parent = result;
  return 0;
}

static bool is_normal_name(const struct plat_parent* parent) {
  if (parent->last_length == 0) return false;
  return strcmp(parent->last, ".") != 0 && strcmp(parent->last, "..") != 0;
}

int snbf_plat_parent_child(plat_parent* parent) {
  struct dentry* child;

  if (!is_normal_name(parent)) return -EEXIST;
  child = lookup_one(snbf_mnt_ids(parent->folder.mnt), parent->last, parent->folder.dentry,
                     parent->last_length);
  if (IS_ERR(child)) return PTR_ERR(child);
  if (parent->trailing_slash && d_is_negative(child)) {
    dput(child);
    return -ENOENT;
  }
  parent->child = child;
  return 0;
}

int snbf_plat_parent_mknod(plat_parent* parent, int mode, plat_devt device) {
  if (d_is_positive(parent->child)) return -EEXIST;
  if (parent->write_error != 0) return parent->write_error;
  return vfs_mknod(snbf_mnt_ids(parent->folder.mnt), d_inode(parent->folder.dentry), parent->child,
                   mode, device);
}

int snbf_plat_parent_unlink(plat_parent* parent) {
  if (d_is_negative(parent->child)) return -ENOENT;
  if (parent->write_error != 0) return parent->write_error;
  parent->unlinked = d_inode(parent->child);
  ihold(parent->unlinked);
  return vfs_unlink(snbf_mnt_ids(parent->folder.mnt), d_inode(parent->folder.dentry), parent->child,
                    NULL);
}

void snbf_plat_parent_unlock(plat_parent* parent) {
  dput(parent->child);
  inode_unlock(d_inode(parent->folder.dentry));
  iput(parent->unlinked);
  if (parent->write_error == 0) mnt_drop_write(parent->folder.mnt);
  path_put(&parent->folder);
  kfree(parent);
}
