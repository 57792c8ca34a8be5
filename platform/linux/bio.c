// SPDX-License-Identifier: GPL-2.0-only
/*
 * Requests: those that come to a node, and those of the driver's own.
 *
 * Statistics of a node. A request passed on in place has no completion of ours: it is counted when
 * it is sent on, without a latency. A request that was cloned is in flight from its first clone
 * until it is completed here (or passed on after all). When that began stands in its bi_cookie: the
 * word serves polling alone, which a node does not offer. BLK_QC_T_NONE says that it is not in
 * flight.
 */
#include "bio.h"

#include <linux/bio.h>
#include <linux/blk-cgroup.h>
#include <linux/blkdev.h>
#include <linux/delay.h>
#include <linux/jiffies.h>
#include <linux/part_stat.h>
#include <linux/slab.h>

#include "compat.h"
#include "gfp.h"
#include "module.h"
#include "platform/block.h"
#include "platform/entry.h"

#define MAX_REQUEST_SECTORS ((4u << 20) >> SECTOR_SHIFT)

/*
 * A reserve for forward progress; memory beyond it comes from the slab. It is for clones alone, each of which
 * comes back when its request is done: what the driver makes for itself may be kept, and may be refused.
 */
#define CLONE_RESERVE 64
#define SPLIT_BIO_RESERVE 16

/* A request of the driver's own. */
struct own_bio {
  const plat_bio_hooks* hooks;
  void* context;
  u32 bytes_left;
  struct bio bio; /* last: what is before it, the set of clones puts in front of each */
};

/* One that is no clone, and has its own vector. */
struct page_bio {
  struct own_bio own;
  struct bio_vec vector;
};

static struct bio_set clones;
static struct bio_set split_bios;

/* Requests of the driver's own that are not freed yet. */
static atomic_t own_bios_live = ATOMIC_INIT(0);

static_assert(sizeof(struct bvec_iter) <= sizeof(plat_bio_cursor));

static struct bio* bio_of(const plat_bio* bio) { return (struct bio*)bio; }

static struct block_device* bdev_of(plat_bdev* bdev) { return (struct block_device*)bdev; }

static struct own_bio* own_of(const plat_bio* bio) {
  return container_of(bio_of(bio), struct own_bio, bio);
}

int snbf_bio_sets_init(void) {
  int rc = bioset_init(&clones, CLONE_RESERVE, offsetof(struct own_bio, bio), 0);

  if (rc != 0) return rc;
  rc = bioset_init(&split_bios, SPLIT_BIO_RESERVE, 0, 0);
  if (rc != 0) bioset_exit(&clones);
  return rc;
}

/*
 * The last request of a node may be complete, and the node gone, before the interrupt that
 * completed it has put its clone. The last thing done with a request in this text is to count it
 * out.
 */
void snbf_bio_sets_exit(void) {
  while (atomic_read(&own_bios_live) > 0) msleep(1);
  bioset_exit(&split_bios);
  bioset_exit(&clones);
}

/*
 * The part that the driver may take at once. The rest goes back to the block layer and comes again
 * when this call of the submit function is over: by then its forerunner is on its way.
 */
static struct bio* split_off(struct bio* bio) {
  struct bio* part = bio_split(bio, MAX_REQUEST_SECTORS, GFP_NOIO, &split_bios);

  part->bi_cookie = BLK_QC_T_NONE;
  bio_chain(part, bio);
  submit_bio_noacct(bio);
  return part;
}

void snbf_node_submit_bio(struct bio* bio) {
  bio->bi_cookie = BLK_QC_T_NONE;
  if (unlikely(bio_sectors(bio) > MAX_REQUEST_SECTORS)) bio = split_off(bio);
  snbf_make_request(bio->bi_bdev->bd_disk->queue, (plat_bio*)bio);
}

static void account_begin(struct bio* bio) {
  u32 now = jiffies;

  if (bio->bi_cookie != BLK_QC_T_NONE || !blk_queue_io_stat(bdev_get_queue(bio->bi_bdev))) return;
  bio_start_io_acct(bio);
  bio->bi_cookie = now == BLK_QC_T_NONE ? now - 1 : now;
}

/* 1 if it was in flight. */
static bool account_end(struct bio* bio) {
  unsigned long now = jiffies;

  if (likely(bio->bi_cookie == BLK_QC_T_NONE)) return false;
  bio_end_io_acct(bio, now - (u32)((u32)now - bio->bi_cookie));
  bio->bi_cookie = BLK_QC_T_NONE;
  return true;
}

static void account_passed_on(struct bio* bio) {
  struct block_device* node = bio->bi_bdev;
  const bool is_flush = bio_sectors(bio) == 0;
  const int group = is_flush ? STAT_FLUSH : op_stat_group(bio_op(bio));

  if (!blk_queue_io_stat(bdev_get_queue(node))) return;
  part_stat_lock();
  part_stat_inc(node, ios[group]);
  part_stat_add(node, sectors[group], bio_sectors(bio));
  part_stat_unlock();
}

void snbf_plat_bio_info(const plat_bio* request, plat_bio_info* info) {
  const struct bio* bio = bio_of(request);

  info->sector = bio->bi_iter.bi_sector;
  info->size_bytes = bio->bi_iter.bi_size;
  info->device = bio->bi_bdev ? disk_devt(bio->bi_bdev->bd_disk) : 0;
  info->is_write = op_is_write(bio_op(bio));
}

int snbf_plat_bio_is_write(const plat_bio* bio) { return op_is_write(bio_op(bio_of(bio))); }

/* The block layer links requests by this word only while they are its own. */
void snbf_plat_bio_set_next(plat_bio* bio, plat_bio* next) { bio_of(bio)->bi_next = bio_of(next); }

plat_bio* snbf_plat_bio_next(const plat_bio* bio) { return (plat_bio*)bio_of(bio)->bi_next; }

/* Limits of the root group, which the old hierarchy has, are not seen. */
int snbf_plat_bio_may_be_throttled(const plat_bio* bio) {
#ifdef CONFIG_BLK_CGROUP
  const struct cgroup_subsys_state* group = bio_blkcg_css(bio_of(bio));

  return group && group != blkcg_root_css;
#else
  return 0;
#endif
}

void snbf_plat_bio_forward(plat_bio* request, plat_bdev* bdev) {
  struct bio* bio = bio_of(request);

  struct bio_list* pending = current->bio_list;

  if (!account_end(bio)) account_passed_on(bio);
  bio_set_dev(bio, bdev_of(bdev));
  /* Without the task's list it is sent at once, and not when our submit function has returned. */
  if (snbf_plat_bdev_can_drain(bdev)) current->bio_list = NULL;
  submit_bio_noacct(bio);
  current->bio_list = pending;
}

void snbf_plat_bio_complete(plat_bio* request, int error) {
  struct bio* bio = bio_of(request);

  account_end(bio);
  /* Only set: another part of a split request may have left its error here. */
  if (error != 0) bio->bi_status = errno_to_blk_status(error);
  bio_endio(bio);
}

static plat_bio* own_bio_begin(struct bio* bio) {
  struct own_bio* own = container_of(bio, struct own_bio, bio);

  own->hooks = NULL;
  own->context = NULL;
  own->bytes_left = bio->bi_iter.bi_size;
  atomic_inc(&own_bios_live);
  snbf_expect_stragglers();
  return (plat_bio*)bio;
}

plat_bio* snbf_plat_bio_clone(plat_bio* original, plat_alloc_mode mode) {
  struct bio* from = bio_of(original);
  /* Of the same device for now, which lets it begin in the original's control group. */
  struct bio* clone = bio_alloc_clone(from->bi_bdev, from, snbf_gfp(mode), &clones);

  if (!clone) return NULL;
  account_begin(from);
  return own_bio_begin(clone);
}

plat_bio* snbf_plat_bio_alloc(plat_alloc_mode mode) {
  struct page_bio* page = kmalloc(sizeof(*page), snbf_gfp(mode));

  if (!page) return NULL;
  bio_init(&page->own.bio, NULL, &page->vector, 1, REQ_OP_READ);
  return own_bio_begin(&page->own.bio);
}

void snbf_plat_bio_set_page(plat_bio* request, int write, plat_u64 sector, void* data,
                            plat_u32 bytes) {
  struct bio* bio = bio_of(request);

  bio_reset(bio, NULL, write ? REQ_OP_WRITE | REQ_SYNC : REQ_OP_READ);
  bio->bi_iter.bi_sector = sector;
  __bio_add_page(bio, virt_to_page(data), bytes, offset_in_page(data));
  own_of(request)->bytes_left = bytes;
}

void snbf_plat_bio_set_hooks(plat_bio* bio, const plat_bio_hooks* hooks, void* context) {
  own_of(bio)->hooks = hooks;
  own_of(bio)->context = context;
}

const plat_bio_hooks* snbf_plat_bio_hooks(const plat_bio* bio) { return own_of(bio)->hooks; }

void* snbf_plat_bio_context(const plat_bio* bio) { return own_of(bio)->context; }

plat_u32 snbf_plat_bio_bytes_left(const plat_bio* bio) { return own_of(bio)->bytes_left; }

int snbf_plat_bio_is_uptodate(const plat_bio* bio) { return bio_of(bio)->bi_status == BLK_STS_OK; }

/* This kernel calls once, when the whole request is done. The hook may free the request. */
static void own_bio_end(struct bio* bio) {
  struct own_bio* own = container_of(bio, struct own_bio, bio);
  const u32 bytes_done = own->bytes_left;

  own->bytes_left = 0;
  if (own->hooks && own->hooks->end_io)
    own->hooks->end_io((plat_bio*)bio, bytes_done, blk_status_to_errno(bio->bi_status));
}

/*
 * What a thread of the driver passes on for a sender is charged to the sender's group, but does not wait for its share:
 * everybody else's would wait behind it. The kernel has no word for that but this.
 */
static bool others_wait_for(struct bio* bio) {
  return bio_flagged(bio, BIO_CLONED) && (current->flags & PF_KTHREAD) &&
         (current->flags & PF_LOCAL_THROTTLE);
}

void snbf_plat_bio_submit(plat_bio* request, plat_bdev* bdev) {
  struct bio* bio = bio_of(request);

  if (others_wait_for(bio)) bio->bi_opf |= REQ_META;
  bio->bi_end_io = own_bio_end;
  bio_set_dev(bio, bdev_of(bdev));
  submit_bio_noacct(bio);
}

void snbf_plat_bio_submit_all(plat_bio* const* bios, int count, plat_bdev* bdev) {
  struct blk_plug plug;
  int i;

  blk_start_plug(&plug);
  for (i = 0; i < count; ++i) snbf_plat_bio_submit(bios[i], bdev);
  blk_finish_plug(&plug);
}

static void free_own_bio(struct bio* bio) {
  if (bio->bi_pool) {
    bio_put(bio);
    return;
  }
  bio_uninit(bio);
  kfree(container_of(bio, struct page_bio, own.bio));
}

void snbf_plat_bio_put(plat_bio* bio) {
  const plat_bio_hooks* hooks = own_of(bio)->hooks;

  if (hooks && hooks->destroy) hooks->destroy(bio);
  free_own_bio(bio_of(bio));
  atomic_dec(&own_bios_live);
}

void snbf_plat_bio_cursor_init(const plat_bio* request, plat_bio_cursor* cursor) {
  const struct bio* bio = bio_of(request);
  struct bvec_iter* iter = (struct bvec_iter*)cursor;

  *iter = bio->bi_iter;
  /* A discard has a size and no data. */
  if (!bio_has_data(bio_of(request))) iter->bi_size = 0;
}

int snbf_plat_bio_next_segment(plat_bio* request, plat_bio_cursor* cursor, plat_segment* segment) {
  struct bio* bio = bio_of(request);
  struct bvec_iter* iter = (struct bvec_iter*)cursor;
  struct bio_vec piece;

  if (iter->bi_size == 0) return 0;
  piece = bio_iter_iovec(bio, *iter);
  segment->sector = iter->bi_sector;
  segment->bytes = piece.bv_len;
  segment->data = page_address(piece.bv_page) + piece.bv_offset;
  bio_advance_iter_single(bio, iter, piece.bv_len);
  return 1;
}
