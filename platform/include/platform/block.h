/* SPDX-License-Identifier: GPL-2.0-only */
/* Block devices and requests (bios). Sectors are 512 bytes. */
#ifndef SNBF_PLATFORM_BLOCK_H
#define SNBF_PLATFORM_BLOCK_H

#include "platform/types.h"

PLAT_BEGIN_DECLS

#define PLAT_MODE_READ 0x1
#define PLAT_MODE_WRITE 0x2

/* How a block device is opened: among others, or with `holder` as its only owner (nothing can mount it then). */
typedef enum plat_open_kind {
  PLAT_OPEN_SHARED = 0,
  PLAT_OPEN_EXCLUSIVE = 1,
} plat_open_kind;

/* 0 and the device, or a negative error (-EBUSY: exclusive and somebody else's). May sleep. */
int snbf_plat_bdev_open(plat_devt device, int mode, plat_open_kind kind, void* holder, plat_bdev** bdev);
int snbf_plat_bdev_close(plat_bdev* bdev, plat_open_kind kind, int mode, void* holder);
/* 1 while a file system is mounted on it. */
int snbf_plat_bdev_is_mounted(plat_bdev* bdev);
/* How often it is open, this opening included. */
int snbf_plat_bdev_openers(plat_bdev* bdev);
plat_u64 snbf_plat_bdev_bytes(plat_bdev* bdev);
/* Bytes of a logical block: the least that it reads or writes. */
plat_u32 snbf_plat_bdev_block_bytes(plat_bdev* bdev);
plat_devt snbf_plat_bdev_device(plat_bdev* bdev);
/* 1 for a zoned device: where an append lands is not known when it is sent. */
int snbf_plat_bdev_is_zoned(plat_bdev* bdev);
/* Passes an ioctl of a node's opener on to this device's own driver: its answer; 0 if it knows no ioctl. May sleep. */
int snbf_plat_bdev_ioctl(plat_bdev* bdev, int mode, unsigned cmd, unsigned long arg);

/*
 * Requests sent on in place carry no mark of ours until they complete. can_drain: 1 when drain can wait for those:
 * the device counts what has entered its queue, or completes each request before its sender goes on. drain waits
 * until every request that had entered the queue before the call has completed: 0, or -ETIMEDOUT after `limit_ms`.
 * New requests may wait meanwhile. May sleep; hold no lock that a request's sender takes.
 */
int snbf_plat_bdev_can_drain(plat_bdev* bdev);
int snbf_plat_bdev_drain(plat_bdev* bdev, plat_u32 limit_ms);

/*
 * Freezes the file system that is mounted on the device: it is then quiet and whole on disk. 0 and thaw when
 * done; a negative error and nothing to thaw (no file system: 0). May sleep long. Used from the task that thaws.
 */
int snbf_plat_bdev_freeze(plat_bdev* bdev);
int snbf_plat_bdev_thaw(plat_bdev* bdev);

/* What the driver asks of a request. */
typedef struct plat_bio_info {
  plat_u64 sector;     /* first */
  plat_u32 size_bytes; /* 0: an empty request, a flush */
  plat_devt device;    /* the one that it was sent to */
  int is_write;        /* discard, write-zeroes and secure erase are writes too */
} plat_bio_info;
void snbf_plat_bio_info(const plat_bio* bio, plat_bio_info* info);
int snbf_plat_bio_is_write(const plat_bio* bio);
/* A word of a request that came to a node, for its driver to link it with while it keeps it; null, as it comes and
 * again before it is sent on, cloned or completed. Any context. */
void snbf_plat_bio_set_next(plat_bio* bio, plat_bio* next);
plat_bio* snbf_plat_bio_next(const plat_bio* bio);
/* 1 when a limit of its sender's control group may hold it back on its way into a queue, where nobody sees it. */
int snbf_plat_bio_may_be_throttled(const plat_bio* bio);

/*
 * Sends the caller's own request on to `bdev` in place and gives it up; counted in the statistics of the node
 * that it came through. It may complete before this returns. To a device that can be drained it has entered the queue
 * when this returns, even from inside a submit function: so call it with no lock held. May sleep.
 */
void snbf_plat_bio_forward(plat_bio* bio, plat_bdev* bdev);
/* Ends a request that was sent to a node: 0 or a negative error. The request is gone afterwards. Any context. */
void snbf_plat_bio_complete(plat_bio* bio, int error);

/*
 * What happens to a request of the driver's own. end_io: called by the platform as parts of it complete, with
 * the bytes done and 0 or a negative error; answers 1 while bytes are outstanding (bytes_left), else 0. From
 * an interrupt or not. destroy: the last reference is gone. Either may be null.
 */
typedef struct plat_bio_hooks {
  int (*end_io)(plat_bio* bio, plat_u32 bytes_done, int error);
  void (*destroy)(plat_bio* bio);
} plat_bio_hooks;

/* Clone that shares the original's pages, with one reference; null when there is no memory. Sleeps unless Atomic.
 * The original stays unchanged, and is counted as in flight until it is completed. */
plat_bio* snbf_plat_bio_clone(plat_bio* original, plat_alloc_mode mode);
/* Empty request for one page, with one reference; null when there is no memory. */
plat_bio* snbf_plat_bio_alloc(plat_alloc_mode mode);
/* Makes such a request read or write `bytes` at `data`, within one page; it can be used again once it has completed. */
void snbf_plat_bio_set_page(plat_bio* bio, int write, plat_u64 sector, void* data, plat_u32 bytes);
/* `hooks` must outlive the request. Null takes the hooks away. */
void snbf_plat_bio_set_hooks(plat_bio* bio, const plat_bio_hooks* hooks, void* context);
const plat_bio_hooks* snbf_plat_bio_hooks(const plat_bio* bio);
void* snbf_plat_bio_context(const plat_bio* bio);
/* Bytes not completed yet; 0 in the last call of end_io. */
plat_u32 snbf_plat_bio_bytes_left(const plat_bio* bio);
/* 1 when it completed without an error. */
int snbf_plat_bio_is_uptodate(const plat_bio* bio);
/* Sends a request of the driver's own, of whole logical blocks, to `bdev`. The reference stays with the driver. */
void snbf_plat_bio_submit(plat_bio* bio, plat_bdev* bdev);
/* Sends several, which the device may then join where they are neighbours. As with one, may sleep
   for a place in the device's queue. */
void snbf_plat_bio_submit_all(plat_bio* const* bios, int count, plat_bdev* bdev);
/* Drops the reference; the last one calls destroy and frees it. Any context. */
void snbf_plat_bio_put(plat_bio* bio);

/* The pieces of a request's data, in order, each of at most 4096 bytes within one page. */
typedef struct plat_bio_cursor { plat_u64 opaque[4]; } plat_bio_cursor;
typedef struct plat_segment {
  plat_u64 sector;
  plat_u32 bytes;
  void* data; /* may be written for a read */
} plat_segment;
void snbf_plat_bio_cursor_init(const plat_bio* bio, plat_bio_cursor* cursor);
/* 1 and the next piece, or 0 at the end. */
int snbf_plat_bio_next_segment(plat_bio* bio, plat_bio_cursor* cursor, plat_segment* segment);

PLAT_END_DECLS
#endif
