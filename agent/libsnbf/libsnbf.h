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
};

/* -ENODEV: the driver is not loaded. `options` may be null. */
int libsnbf_open(const struct libsnbf_options* options, struct libsnbf** out);
void libsnbf_close(struct libsnbf* handle);

/*
 * The commands, one function each, as the driver has them. Two of them refuse what would leave the
 * driver's node table locked (a snap with another chunk size than its siblings; resuming what is
 * unknown, not a snap, or started): -EINVAL or -EALREADY, and the command is never sent.
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
  int stopped_clean;   /* 1: stopped by libsnbf_stop, both bitmaps saved */
  uint64_t head_hash;  /* of the partition's first 128 KiB at that stop */
  char distrust[32];   /* why the bitmaps are all ones, until a full backup: see below */
  char incr_point[96]; /* what the Incremental bitmap counts from, as the agent names it */
  char diff_point[96]; /* the same of the Differential bitmap */
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

/*
 * Attach: create a filter node over a partition, judge what is left of its last attachment, and
 * save both bitmaps at once, so that a file once refused is never found clean later.
 *
 *   -EILSEQ   the name is not [A-Za-z0-9_-][A-Za-z0-9._-]* or is "control"
 *   -EEXIST   another node has the name
 *   -ENOTBLK  not a block device
 *   -ERANGE   the minor is the driver's highest, which is never listed, or beyond it
 *   -ELOOP    the bitmap directory lies on the partition, however it is reached
 *   -ENOTDIR, -ENOENT  the bitmap directory is none
 *   -EIO      the bitmaps could not be saved; the node is gone again
 *   and the driver's own
 */
struct libsnbf_attach_request {
  const char* partition;
  const char* name;
  const char* bmp_dir;
  int32_t minor; /* negative: the one that the name had last, or the lowest free one */
  uint32_t extent_size;
  /* out */
  uint32_t minor_used;
  char uuid[SNBF_UUID_BYTES];
  char distrust[32]; /* empty: the bitmaps were loaded and are believed */
};
int libsnbf_attach(struct libsnbf* handle, struct libsnbf_attach_request* request);

/* Start, stop and delete with the clean-stop record kept in step. Snap nodes pass straight on. */
int libsnbf_start(struct libsnbf* handle, uint32_t minor);
int libsnbf_stop(struct libsnbf* handle, uint32_t minor);
int libsnbf_detach(struct libsnbf* handle, uint32_t minor);

/* Guard rails for callers that place files themselves. */
int libsnbf_name_is_safe(const char* name);
/* 1 if `path` (or the directory it would be made in) lies on the block device `major:minor`. */
int libsnbf_path_is_on(struct libsnbf* handle, const char* path, uint32_t major, uint32_t minor,
                       int* answer);
/* The highest minor that the driver was loaded for. */
int libsnbf_minor_max(struct libsnbf* handle, uint32_t* out);
int libsnbf_blk_major(struct libsnbf* handle, uint32_t* out);

#ifdef __cplusplus
}
#endif
#endif
