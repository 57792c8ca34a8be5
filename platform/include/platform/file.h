/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Files and paths. Absolute paths are resolved from the root of the init task, so that a kernel
 * thread and a command mean the same file. Everything here may sleep.
 */
#ifndef SNBF_PLATFORM_FILE_H
#define SNBF_PLATFORM_FILE_H

#include "platform/types.h"

PLAT_BEGIN_DECLS

#define PLAT_O_RDONLY 0x0
#define PLAT_O_WRONLY 0x1
#define PLAT_O_RDWR 0x2
#define PLAT_O_ACCMODE 0x3
#define PLAT_O_CREAT 0x40
#define PLAT_O_EXCL \
  0x80 /* with O_CREAT: -EEXIST for a name that is there, also for a symbolic link that leads nowhere */
#define PLAT_O_TRUNC 0x200
#define PLAT_O_SYNC 0x1000
#define PLAT_O_LARGEFILE 0x8000

/* 0 and the open file, or a negative error. The caller closes it. */
int snbf_plat_file_open(const char* path, int flags, int mode, plat_file** file);
int snbf_plat_file_close(plat_file* file);
/* One call of the file's own read or write at byte `position`: bytes moved (perhaps fewer), 0 at the end, or a negative error. */
plat_s64 snbf_plat_file_read(plat_file* file, plat_u64 position, void* to, plat_size bytes);
plat_s64 snbf_plat_file_write(plat_file* file, plat_u64 position, const void* from, plat_size bytes);
/* One call of the file's own write of whole pages' memory: `bytes` from `pages`, 4096 of each but perhaps the last.
 * Bytes written, perhaps those of the first few pages only, or a negative error. */
plat_s64 snbf_plat_file_write_pages(plat_file* file, plat_u64 position, void* const* pages, plat_size bytes);

/*
 * Writes past the page cache, several in flight together. Reads of the same file that begin
 * afterwards see them, through whatever handle. What they need of memory while they last, beside
 * what the file system takes for itself, is a batch: made once, for so many pieces and pages a
 * call, and used by one call at a time. Null without memory; starts no I/O.
 */
typedef struct plat_direct_batch plat_direct_batch;
plat_direct_batch* snbf_plat_direct_batch_make(int pieces_max, int pages_max);
void snbf_plat_direct_batch_free(plat_direct_batch* batch);

typedef struct plat_file_piece {
  plat_u64 position;  /* in the file; a multiple of 4096 */
  void* const* pages; /* whole pages' memory: nobody changes it during the call */
  plat_size bytes;    /* a multiple of 4096, and not 0 */
  plat_s64 result; /* answered: bytes written, perhaps fewer, or a negative error; -EINVAL: not to
                      be had this way */
} plat_file_piece;

/* Writes all pieces, of which no two overlap, and waits for all. They are done in any order, and
 * each fails for itself. As durable as other writes, also where the file was opened for synchronous
 * ones: that takes a sync. */
void snbf_plat_file_write_direct(plat_file* file, plat_direct_batch* batch, plat_file_piece* pieces,
                                 int count);

/* Makes the data durable, and what it takes to find it again. 0, also for a file that knows no sync, or a negative error. */
int snbf_plat_file_sync(plat_file* file);
/* Length in bytes. */
plat_u64 snbf_plat_file_size(plat_file* file);

/*
 * Looks an absolute path up. 0 and a reference (dropped with path_put), or a negative error.
 * `follow` non-zero follows a final symbolic link.
 */
int snbf_plat_path_lookup(const char* path, int follow, plat_path** found);
void snbf_plat_path_put(plat_path* path);

#define PLAT_S_IFMT 0xF000
#define PLAT_S_IFBLK 0x6000
#define PLAT_S_IFCHR 0x2000

typedef struct plat_path_info {
  int has_inode;          /* 0: nothing else is filled but `entry` and `name` */
  int mode;               /* file type and permission bits */
  plat_devt device;       /* of a device file: the device that it names */
  plat_devt store_device; /* block device of the file system that holds it; 0 if that has none */
  plat_devt file_system;  /* number of that file system: of its device, or its own; not 0 */
  plat_u64 inode_number;
  const void* entry; /* for log lines only */
  const void* inode; /* for log lines only */
  const char* name;  /* last component; lives as long as the path */
} plat_path_info;
void snbf_plat_path_info(const plat_path* path, plat_path_info* info);

/*
 * The two steps of creating and removing a name. parent_lock walks to the parent and locks it; child looks
 * the last component up (-EEXIST when it is no normal name, -ENOENT for a trailing "/" behind a name that
 * does not exist). Then mknod or unlink of that child. parent_unlock releases all of it, on every path.
 */
typedef struct plat_parent plat_parent;
int snbf_plat_parent_lock(const char* path, plat_parent** parent);
int snbf_plat_parent_child(plat_parent* parent);
int snbf_plat_parent_mknod(plat_parent* parent, int mode, plat_devt device);
int snbf_plat_parent_unlink(plat_parent* parent);
void snbf_plat_parent_unlock(plat_parent* parent);

PLAT_END_DECLS
#endif
