/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * libsnbf's capture: the order of a backup, for any program that makes one. The rules of libsnbf.h
 * hold here too.
 */
#ifndef LIBSNBF_CAPTURE_H
#define LIBSNBF_CAPTURE_H

#include "libsnbf.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A capture: what a backup copies, such that no change is lost, whenever it fails or the machine
 * goes down. The order:
 *
 *   libsnbf_capture_open     the node's lock
 *   libsnbf_capture_recover  what a capture that was cut off had taken is given back
 *   libsnbf_capture_begin    journal "begins"; the bits are taken and cleared (B1); journal B1; a
 *                            snap is made and started; the bits are read again (B2)
 *   libsnbf_capture_source   the device to read, and B1 OR B2: the caller copies those extents
 *   libsnbf_capture_seal     what was read is true; what may not be counts as changed again
 *                            ... the caller makes the point durable, and its destination name it
 *   libsnbf_capture_commit   the bitmap counts from that point; the journal goes, then the snap
 *
 * libsnbf_capture_abort() in place of the last two makes the bitmaps what they would be had nobody
 * come. The copy and the destination are the caller's. A capture belongs to the thread and the
 * handle that it was opened with; the handle outlives it.
 */
struct libsnbf_capture;

#define LIBSNBF_WHY_CAPTURE "capture-interrupted" /* a value of `distrust` */

enum libsnbf_level {
  LIBSNBF_LEVEL_INCR = 0, /* what the Incremental bitmap has */
  LIBSNBF_LEVEL_DIFF,     /* and what the Differential one has */
  LIBSNBF_LEVEL_FULL      /* every extent; takes both bitmaps */
};

/*
 * -EBUSY: another capture of the node is open, in this process or another. -EINVAL: no filter
 * node. -ENOLINK: the node's record is not in its bitmap directory, as at libsnbf_start(). Of `out`
 * the caller is the owner.
 *
 * The file system of the bitmaps may go away under a capture. Whatever comes then answers -ENOLINK
 * too, and leaves the record and the journal that it holds alone: once it is back, the recovery
 * does what is left to do.
 */
int libsnbf_capture_open(struct libsnbf* handle, uint32_t filter_minor,
                         struct libsnbf_capture** out);
/* 1: a capture of the node is under way, or was cut off. */
int libsnbf_capture_pending(struct libsnbf* handle, uint32_t filter_minor, int* pending);
/* Aborts what is neither committed nor aborted. Null is allowed. */
void libsnbf_capture_close(struct libsnbf_capture* capture);

/*
 * When the last capture of the node was committed, and the last full one, in seconds since 1970; 0:
 * none is known. One that was cut off at its very end, and recovered, counts from when it last took
 * bits. It stands in the file snbf<minor>.last of the bitmap directory, and only informs.
 */
struct libsnbf_last_capture {
  int64_t any;
  int64_t full;
};
int libsnbf_capture_last(struct libsnbf* handle, uint32_t filter_minor,
                         struct libsnbf_last_capture* out);

/* 1: the destination names the point, durably. 0: it does not, or nobody can tell. */
typedef int (*libsnbf_capture_known_fn)(void* context, const char* destination, const char* point);

enum libsnbf_recovered {
  LIBSNBF_RECOVERED_NOTHING = 0, /* no capture was cut off */
  LIBSNBF_RECOVERED_COMMITTED,   /* at its very end: it is complete */
  LIBSNBF_RECOVERED_MERGED,      /* what it had taken counts as changed again */
  LIBSNBF_RECOVERED_ALL          /* it is not known what it had taken: all counts as changed */
};

/*
 * What a capture that was cut off left behind: its bits, its journal, its snap. `known` may be
 * null: then no destination names anything. `snaps_left` may be null: it counts the snaps that
 * could not be deleted yet.
 *
 *   -EXDEV  the journal is that of another node; nothing was done
 *   and the driver's and the file system's own: nothing is lost, and it can be called again
 */
int libsnbf_capture_recover(struct libsnbf_capture* capture, libsnbf_capture_known_fn known,
                            void* context, enum libsnbf_recovered* out, uint32_t* snaps_left);

struct libsnbf_capture_request {
  enum libsnbf_level level;
  const char* destination; /* for `known` after a crash; no line's end in it */
  const char* point;       /* what the bitmaps then count from; shorter than 96 bytes */
  const char* cow_dir;     /* of the snap's files; null: without a snap, see below */
};

/*
 * Syncs what is mounted on the node, takes the bits, and makes the snap. On a failure all is as it
 * was, and it can be called again.
 *
 *   -EUCLEAN  a capture was cut off: libsnbf_capture_recover() comes first
 *   -EALREADY it has begun
 *   -EINVAL   the node is not started, or a text has a line's end; -ENAMETOOLONG: `point`
 *   -ENODEV   the node is gone, or its minor is another's by now
 *   and those of libsnbf_snap_create()
 *
 * Without a snap the device is the node's own. It moves while it is copied, so the caller goes on
 * with libsnbf_capture_again() until nothing is marked and nothing unsettled, or until it is not worth
 * it: what was written behind the last call stays marked. May take two seconds, for writes under way to
 * land.
 */
int libsnbf_capture_begin(struct libsnbf_capture* capture,
                          const struct libsnbf_capture_request* request);

struct libsnbf_source {
  char device[SNBF_PATH_BYTES]; /* to be opened for reading, past the page cache (O_DIRECT) */
  uint32_t minor;               /* its own */
  int from_snap;
  int never_settles; /* 1: the system does not say what is under way; another call is in vain */
  uint64_t unsettled_cnt; /* extents whose writes may not have landed when they were taken */
  uint64_t start_us;      /* how long the start of the snap took */
  uint64_t dev_size; /* bytes */
  uint64_t extent_cnt;
  uint32_t extent_size; /* bytes; extent e is bit e mod 8 of byte e / 8 */
  uint32_t bits_size;   /* bytes */
};

/*
 * From where, and which extents. `bits` has room for `bits_size` bytes (-ENOSPC: too few), or is
 * null: then it is only asked for the rest. -EPROTO: it has not begun.
 */
int libsnbf_capture_source(struct libsnbf_capture* capture, struct libsnbf_source* out, void* bits,
                           uint32_t bits_size);

/*
 * Without a snap: takes what has been written since, as begin does. Where all writes under way have
 * landed by now, the bits are also those that were unsettled before: all that they name is read once
 * more, and then nothing is unsettled. May take two seconds. -EOPNOTSUPP: there is a snap. If it fails
 * otherwise than by -ENOSPC for `bits_size`, what it took can only be given back: abort.
 */
int libsnbf_capture_again(struct libsnbf_capture* capture, void* bits, uint32_t bits_size);

/* 0: what was read so far is true. -ENODATA: the snap is lost, and this capture with it. */
int libsnbf_capture_check(struct libsnbf_capture* capture);

/*
 * Everything is read. What is unsettled is merged back. -ENODATA as above; -EPROTO: it has not
 * begun, or a later taking has failed.
 */
int libsnbf_capture_seal(struct libsnbf_capture* capture);

/*
 * The destination names the point, durably. From here the bitmaps count from it: the state record
 * says so, and a full capture ends their distrust. A failure leaves the journal, and the next
 * recovery does the same. -EPROTO: it is not sealed.
 *
 * Both take the snap away; whoever has its device open closes it before. `snap_left` may be null:
 * 0, it is gone; 1, it holds parts of older snaps and goes with them; a negated error number, it
 * goes with the next recovery.
 */
int libsnbf_capture_commit(struct libsnbf_capture* capture, int* snap_left);
int libsnbf_capture_abort(struct libsnbf_capture* capture, int* snap_left);

#ifdef __cplusplus
}
#endif
#endif
