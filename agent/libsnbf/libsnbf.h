/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * libsnbf: the driver's commands as C functions, and the guard rails around them.
 *
 * Every function answers 0 or a negated error number, prints nothing and keeps no global state. A
 * handle may be used by one thread at a time; several handles, also of several processes, may work
 * at once: what must not overlap is done under a lock file.
 */
#ifndef LIBSNBF_H
#define LIBSNBF_H

#include <stdint.h>

#include "snbf/protocol.h"

#ifdef __cplusplus
extern "C" {
#endif

struct libsnbf;

/* Sends one command: 0 or a negated error number. A test puts its own driver behind it. */
typedef int (*libsnbf_ioctl_fn)(void* context, uint32_t command, void* record);

/* Null fields take the default that stands beside them. */
struct libsnbf_options {
  const char* control;    /* /dev/snbf/control */
  const char* lock_path;  /* /run/snbf.lock */
  const char* sys_root;   /* /sys */
  const char* proc_root;  /* /proc */
  libsnbf_ioctl_fn ioctl; /* ioctl(2) on the control device, which then is not opened */
  void* ioctl_context;
  const char* dev_root; /* /dev */
};

/* -ENODEV: the driver is not loaded. `options` may be null. */
int libsnbf_open(const struct libsnbf_options* options, struct libsnbf** out);
void libsnbf_close(struct libsnbf* handle);

/*
 * The commands, one function each, as the driver has them. Two of them refuse what would leave the
 * driver's node table locked (a snap with another chunk size than its siblings; resuming what is
 * unknown, not a snap, or started): -EINVAL or -EALREADY, and the command is never sent. So that
 * this holds, whatever makes, deletes, starts or stops a node waits for the host's lock. The highest
 * minor, which the driver never lists, is refused with -ERANGE.
 */
int libsnbf_add_filter_node(struct libsnbf* handle, struct snbf_filter_node_cmd* record);
int libsnbf_add_snap_node(struct libsnbf* handle, struct snbf_snap_node_cmd* record);
int libsnbf_del_node(struct libsnbf* handle, uint32_t minor);
int libsnbf_start_node(struct libsnbf* handle, uint32_t minor);
int libsnbf_stop_node(struct libsnbf* handle, uint32_t minor);
int libsnbf_get_device_list(struct libsnbf* handle, uint32_t dev_type,
                            struct snbf_device_list* out);
int libsnbf_get_info(struct libsnbf* handle, uint32_t minor, struct snbf_info* out);
int libsnbf_load_bmp(struct libsnbf* handle, uint32_t minor, uint32_t type);
int libsnbf_save_bmp(struct libsnbf* handle, uint32_t minor, uint32_t type);
int libsnbf_clr_bmp(struct libsnbf* handle, uint32_t minor, uint32_t type);
/* A null `bits` with a size of 0 sets every bit. */
int libsnbf_set_bmp(struct libsnbf* handle, uint32_t minor, uint32_t type, const void* bits,
                    uint32_t size_bytes);
int libsnbf_merge_bmp(struct libsnbf* handle, uint32_t minor, uint32_t type, const void* bits,
                      uint32_t size_bytes);
int libsnbf_get_bmp(struct libsnbf* handle, uint32_t minor, uint32_t type, void* bits,
                    uint32_t size_bytes);
int libsnbf_get_and_clr_bmp(struct libsnbf* handle, uint32_t minor, uint32_t type, void* bits,
                            uint32_t size_bytes);
int libsnbf_get_datablock_bmp(struct libsnbf* handle, uint32_t minor, uint32_t extent_size,
                              void* bits, uint32_t capacity_bytes, uint32_t* size_bytes);
int libsnbf_test_datablock(struct libsnbf* handle, const char* path);
int libsnbf_resume_snap(struct libsnbf* handle, const struct snbf_resume_cmd* record);

/*
 * 1 while memory holds what the bitmap's file does not, else 0. The driver does not report a
 * refused save: ask after each change.
 */
int libsnbf_bmp_unsaved(struct libsnbf* handle, uint32_t minor, uint32_t type, int* unsaved);

/* What a bitmap file is worth, by the driver's own rules. */
enum libsnbf_verdict {
  LIBSNBF_GOOD = 0,
  LIBSNBF_MISSING,
  LIBSNBF_CORRUPT,
  LIBSNBF_DIRTY,
  LIBSNBF_WRONG_SIZE,
  LIBSNBF_WRONG_CHECKSUM
};
int libsnbf_judge_bmp_file(const char* path, uint32_t size_bytes, enum libsnbf_verdict* out);

/*
 * What is known of a node between its attachments, in the file snbf<minor>.state of its bitmap
 * directory. The driver raises the dirty flag of a bitmap file shortly after the first write, not
 * before it; a power cut in between leaves a file that looks clean. So the bitmaps are believed
 * after a clean stop that was seen, and otherwise set to all ones.
 */
struct libsnbf_state {
  char name[SNBF_NAME_BYTES];
  char uuid[SNBF_UUID_BYTES];
  char hdd_name[SNBF_PATH_BYTES];
  char boot_id[40];
  int stopped_clean;  /* 1: stopped by libsnbf_stop, both bitmaps saved */
  uint64_t head_hash; /* of the partition's first 128 KiB at that stop */
  uint64_t epoch;     /* another one after each time in which the partition may have been written */
  char distrust[32];  /* why the bitmaps are all ones, until a full backup: see below */
  char incr_point[96]; /* what the Incremental bitmap counts from, as the agent names it */
  char diff_point[96]; /* the same of the Differential bitmap */
  char device
      [192]; /* "KIND:VALUE": by what the partition is known again, its PARTUUID above all; empty:
                          by nothing */
};
int libsnbf_state_read(const char* bmp_dir, uint32_t minor, struct libsnbf_state* out);
int libsnbf_state_write(const char* bmp_dir, uint32_t minor, const struct libsnbf_state* state);

/* Values of `distrust`; empty: the bitmaps are believed. */
#define LIBSNBF_WHY_MISSING "bitmap-missing"
#define LIBSNBF_WHY_CORRUPT "bitmap-corrupt"
#define LIBSNBF_WHY_DIRTY "bitmap-dirty"
#define LIBSNBF_WHY_SIZE "bitmap-size"
#define LIBSNBF_WHY_CHECKSUM "bitmap-checksum"
#define LIBSNBF_WHY_UNCLEAN "unclean-stop"
#define LIBSNBF_WHY_OUTSIDE "changed-untracked"
#define LIBSNBF_WHY_OTHER_NODE "other-node"
#define LIBSNBF_WHY_ADOPTED "adopted"
#define LIBSNBF_WHY_OTHER_MINOR "other-minor"

/*
 * Attach: create a filter node over a partition, judge what is left of its last attachment, and
 * save both bitmaps at once, so that a file once refused is never found clean later.
 *
 *   -EILSEQ   the name is not [A-Za-z0-9_-][A-Za-z0-9._-]*, is "control", or is "snbf" and a number
 *             that is not the node's own minor: the driver's names
 *   -EEXIST   another node has the name
 *   -ENOTBLK  not a block device
 *   -ERANGE   the minor is the driver's highest, which is never listed, or beyond it
 *   -ELOOP    the bitmap directory lies on the partition, or on what is kept on it, however it is
 *             reached
 *   -EMEDIUMTYPE  the record in the directory, of that minor (`minor_used`), belongs to another
 *             partition, and `adopt` is 0
 *   -ENOLINK  the directory lies on a node whose own record is not where it was: nobody can see what
 *             that node's files lie on
 *   -ENOTDIR, -ENOENT  the bitmap directory is none
 *   -EIO      the bitmaps could not be saved; the node is gone again
 *   and the driver's own
 */
struct libsnbf_attach_request {
  const char* partition;
  const char* name;
  const char* bmp_dir;
  int32_t minor; /* negative: the one that the name had last; where that is taken, a free one */
  uint32_t extent_size;
  int adopt; /* 1: take over the files of another partition; both bitmaps are set to all ones */
  /* out */
  uint32_t minor_used;
  char uuid[SNBF_UUID_BYTES];
  char distrust[32]; /* empty: the bitmaps were loaded and are believed */
  int32_t minor_before; /* the one that the name had last, where it gets another; else negative */
};
int libsnbf_attach(struct libsnbf* handle, struct libsnbf_attach_request* request);

/*
 * Start, stop and delete with the records kept in step: of the node, and of the snaps that stop
 * with it. A start of a snap that could be resumed answers -ENOTEMPTY: it would truncate its files.
 * A detach takes the node's snaps with it, and their files. udev is told of a filter node that
 * was started, and has it open for a moment then; and of one that was stopped.
 *
 * -ENOLINK: the filter node's record is not in its bitmap directory, or another node's is: the file
 * system that held it is gone, another one is in its place, or the node was not attached by this
 * library. A start would leave a record behind that says "clean"; a stop would save the bitmaps where
 * nobody finds them. Nothing was done. A detach is refused only where another node's files would be
 * written over; without its record, the next attach starts from all ones.
 */
int libsnbf_start(struct libsnbf* handle, uint32_t minor);
int libsnbf_stop(struct libsnbf* handle, uint32_t minor);
int libsnbf_detach(struct libsnbf* handle, uint32_t minor);

/*
 * For the end of a started filter node that cannot be stopped. Both may sleep, and answer -EINVAL
 * of any other node.
 *
 * Leave both bitmap files flagged as dirty, before the file system that holds them goes away: from
 * then on the driver could flag them no more. The next attachment counts every extent as changed.
 */
int libsnbf_leave_dirty(struct libsnbf* handle, uint32_t minor);
/*
 * Record a clean stop of a node whose file system is mounted read-only, as the root's is at the
 * very end. What is believed of it later rests on this: a write to the node that comes after all
 * raises the flag in both files first, as long as the file system that holds them can be written;
 * so leave that one as it is.
 *
 *   -EBUSY   it is not mounted, not read-only everywhere, or has a started snap
 *   -EAGAIN  it was written meanwhile: nothing is recorded
 */
int libsnbf_rest(struct libsnbf* handle, uint32_t minor);

/*
 * By which a file is known again. The device number holds for one boot; the time is that of its
 * last change of contents, and is kept from the clean stop on.
 */
struct libsnbf_file_mark {
  uint64_t dev; /* as stat(2) has it; 0: not known */
  uint64_t ino;
  int64_t changed_ns; /* since 1970; 0: not known */
};

/*
 * What is known of a snap, in the file NAME.snap of its node's bitmap directory, from before its
 * creation until its files are gone. A snap is believed to hold its image, and resumed, only if
 *   - it was valid when it was stopped with its node, and its files were synced then,
 *   - the node's epoch, both bitmaps and the partition's head are as they were at that stop,
 *   - its files are the very ones, and have not been changed since,
 *   - every newer snap that was started then can be resumed too: their files hold parts of its
 * image.
 */
struct libsnbf_snap_record {
  char name[SNBF_NAME_BYTES];
  char uuid[SNBF_UUID_BYTES];
  char node_uuid[SNBF_UUID_BYTES];
  char cow_bmp_fname[SNBF_PATH_BYTES];
  char cow_data_fname[SNBF_PATH_BYTES];
  char boot_id[40];    /* when the record was last written */
  uint64_t dev_size;   /* bytes of the partition */
  uint32_t chunk_size; /* bytes, as the driver has it */
  uint32_t sequence;   /* higher than that of any older snap of the node */
  int64_t created;     /* seconds since 1970 */
  int temporary;       /* 1: made for one backup; the next one takes away what was left behind */
  int deleting;        /* 1: to be deleted, as soon as the driver lets it go */
  int stopped_clean;   /* from here: how it was at the stop */
  int stop_pending;
  int del_pending;
  uint64_t epoch;
  uint64_t bitmaps_hash;
  struct libsnbf_file_mark cow_bmp_mark;
  struct libsnbf_file_mark cow_data_mark;
};
int libsnbf_snap_record_read(const char* bmp_dir, const char* name,
                             struct libsnbf_snap_record* out);
int libsnbf_snap_record_write(const char* bmp_dir, const struct libsnbf_snap_record* record);

/* Why a snap cannot be resumed. */
#define LIBSNBF_SNAP_RUNS "started"
#define LIBSNBF_SNAP_UNCLEAN "not-stopped-with-its-node"
#define LIBSNBF_SNAP_NODE_STARTED "node-started"
#define LIBSNBF_SNAP_NODE_WRITTEN "written-since"
#define LIBSNBF_SNAP_NODE_SIZE "size-changed"
#define LIBSNBF_SNAP_FILES "files-missing"
#define LIBSNBF_SNAP_FILES_CHANGED "files-changed"
#define LIBSNBF_SNAP_PLACE "place-unsafe"
#define LIBSNBF_SNAP_NAME "name-taken"
#define LIBSNBF_SNAP_NEWER "newer-lost"

/* Each record of the filter node's snaps, oldest first; `why` is empty if it can be resumed now. */
typedef void (*libsnbf_snap_visit_fn)(void* context, const struct libsnbf_snap_record* record,
                                      const char* why);
int libsnbf_snap_each(struct libsnbf* handle, uint32_t filter_minor, libsnbf_snap_visit_fn visit,
                      void* context);

/*
 * Create a snap and start it: from then on it shows the partition as it was at the start.
 *
 *   -EILSEQ    the name is not safe, or is "snbf" and a number: the driver's own names
 *   -EEXIST    a node has the name, or a snap that is left over
 *   -ELOOP     the directory lies on the partition, or on what is kept on it, however it is reached
 *   -ENOLINK   the directory lies on a node whose own record is not where it was
 *   -EXDEV     the directory's file system has no disk of its own (tmpfs, overlay, btrfs, a
 *              network's)
 *   -ENOTEMPTY files of these names are there, and `overwrite` is 0
 *   -ETXTBSY   files of these names belong to another snap: to one that the driver has, or to a
 *              record in the directory, or beside the bitmaps of any node that is attached
 *   -EDOM      the node's other snaps have another chunk size
 *   -ENOSPC    no minor is free, or the node has as many snaps as it can
 *   -ENODATA   it was lost in the moment of its start: its files could not be written
 * and the driver's own; whatever fails, no snap is left
 */
struct libsnbf_snap_request {
  uint32_t filter_minor;
  const char* name;
  const char* cow_dir;
  uint32_t chunk_size; /* 0: that of the other snaps, or 64 KiB */
  int temporary;
  int overwrite;
  /* out */
  uint32_t minor_used;
  uint32_t chunk_size_used;
  uint64_t start_us; /* how long the start took; the file system stood still for a part of that */
};
int libsnbf_snap_create(struct libsnbf* handle, struct libsnbf_snap_request* request);

/*
 * Delete a snap and its files. `postponed`: an older snap needs what it holds; it can no longer be
 * read, and the driver takes it away with the last of those; or, if somebody has it open in that moment, the next
 * deletion does. `uuid`: -ENOENT unless the snap has it; null for whichever has the minor.
 */
int libsnbf_snap_delete(struct libsnbf* handle, uint32_t minor, const char* uuid, int* postponed);
/* The record and the files of a snap that is no node. -EBUSY: it is one. */
int libsnbf_snap_discard(struct libsnbf* handle, uint32_t filter_minor, const char* name);
/*
 * Resume all that can be resumed, and start the filter node with it. `resumed` counts them; on a
 * failure those that were not resumed are lost. -ESTALE: something was written meanwhile; none is
 * left. -ENODATA: the driver gave one up at once, as for want of memory.
 */
int libsnbf_snap_resume(struct libsnbf* handle, uint32_t filter_minor, uint32_t* resumed);

/* Guard rails for callers that place files themselves. */
int libsnbf_name_is_safe(const char* name);
/* 1 if `path` (or the directory it would be made in) lies on the block device `major:minor`. */
int libsnbf_path_is_on(struct libsnbf* handle, const char* path, uint32_t major, uint32_t minor,
                       int* answer);
/*
 * What a snap's files may lie on: -ELOOP, -ENOLINK and -EXDEV as at libsnbf_snap_create(), -ENOTDIR, -ENOENT.
 */
int libsnbf_cow_dir_check(struct libsnbf* handle, const char* dir, uint32_t filter_minor);
/* What the driver makes of a chunk size on a partition of that size. */
uint32_t libsnbf_chunk_size_on(uint32_t chunk_size, uint64_t dev_size);
/* The highest minor that the driver was loaded for. */
int libsnbf_minor_max(struct libsnbf* handle, uint32_t* out);
int libsnbf_blk_major(struct libsnbf* handle, uint32_t* out);

#ifdef __cplusplus
}
#endif
#endif
