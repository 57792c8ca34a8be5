// SPDX-License-Identifier: GPL-2.0-only
#include "snap/snapstart.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "block/quiet.h"
#include "block/start.h"
#include "core/log.h"
#include "snap/invalidate.h"
#include "util/bdev.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_block_start_device";
constexpr int kCreateFlags = PLAT_O_RDWR | PLAT_O_CREAT | PLAT_O_TRUNC | PLAT_O_LARGEFILE;
constexpr int kFileMode = 0600;

// An empty file of its full length at once, sparse. Its emptiness is on disk before the image begins:
// what an earlier image left must not come back with a power cut.
snbf_file* create_sparse(const char* path, u64 last_byte) {
  snbf_file* file = snbf_fopen(path, kCreateFlags, kFileMode);
  if (file == nullptr) return nullptr;
  const u8 zero = 0;
  snbf_fwrite(file, last_byte, &zero, 1);  // Kept: whatever it answers.
  if (snbf_fsync(file) == 0) return file;
  snbf_log(kLogError, "%s(): Failed to sync %s", kOrigin, path);
  snbf_fclose(file);
  return nullptr;
}

int prepare(SnapNode& snap) {
  snap.cow_data_file = create_sparse(snap.cow_data_fname, snap.cow_data_size - 1);
  if (snap.cow_data_file == nullptr) return -EIO;
  if (int rc = snbf_cowbmp_init(&snap.cow_bmp, snap.chunk_cnt); rc != 0) return rc;
  snap.cow_bmp_file = create_sparse(snap.cow_bmp_fname, snap.cow_bmp_size - 1);
  if (snap.cow_bmp_file == nullptr) return -EIO;
  return snbf_blkbmp_init(&snap.blkbmp);
}

// The instant itself. Everything that is passed or held from now on sees the snap. `has_thread`: the COW
// thread was found running, or could be started.
int take_image(SnapNode& snap, bool has_thread) {
  FilterNode& filter = *snap.filter_node;
  QuietPoint quiet{filter};
  if (int rc = quiet.reach(); rc != 0) return rc;
  if (filter.started.load() == 0 || is_overtaken(snap)) return kStartAgain;
  const bool is_served = filter.cowthread.pid.load() != 0;
  if (has_thread && !is_served) return kStartAgain;
  // Requests that an earlier snap of this minor left are not charged to this one.
  snbf_cowqueue_untag(&filter.cowqueue, static_cast<int>(snap.minor));
  snap.truncation_due.store(0);
  snap.snap_valid.store(1);
  snap.started.store(1);
  // Nobody would ever serve the writes that it holds back: better no image than those.
  if (!is_served) invalidate_snaps_without_files(snap);
  return 0;
}

}  // namespace

bool is_overtaken(const SnapNode& snap) {
  for (const SnapNode* newer = List<SnapNode, BySnapOrder>::next(&snap); newer != nullptr;
       newer = List<SnapNode, BySnapOrder>::next(newer)) {
    if (newer->started.load() != 0) return true;
  }
  return false;
}

Result<bool> start_below(FilterNode& filter) {
  KsMutexGuard life{filter.node_mutex};
  if (filter.started.load() == 0) {
    if (int rc = snbf_block_start_device(filter); rc != 0) return Result<bool>::failure(rc);
  }
  if (filter.cowthread.pid.load() != 0) return true;
  return snbf_cowthread_start(&filter.cowthread, "kcowd", &filter) == 0;
}

void drop_snap_resources(SnapNode& snap) {
  // Given up, and the COW thread has not come to it.
  if (snap.truncation_due.exchange(0) != 0) empty_data_file(snap);
  if (snap.cow_bmp_file != nullptr) snbf_fclose(snap.cow_bmp_file);
  if (snap.cow_data_file != nullptr) snbf_fclose(snap.cow_data_file);
  snap.cow_bmp_file = snap.cow_data_file = nullptr;
  snap.is_buffered = false;
  snbf_cowbmp_destroy(&snap.cow_bmp);
  snbf_blkbmp_destroy(&snap.blkbmp);
}

int start_snap(SnapNode& snap) {
  if (snap.stop_pending.load() != 0) {
    snbf_log(kLogError, "%s(): Cannot restart a DEFUNCT snap device.", kOrigin);
    return -EINVAL;
  }
  const Result<bool> has_thread = start_below(*snap.filter_node);
  if (!has_thread.ok()) return has_thread.error();
  int rc = prepare(snap);
  if (rc == 0) rc = take_image(snap, has_thread.value());
  if (rc != 0) drop_snap_resources(snap);
  return rc;
}

void read_block_map(SnapNode& snap) {
  // One builder at a time: behind a stop and another start there may be two. Whoever builds has the device
  // open, which keeps the snap from being stopped.
  KsMutexGuard building{snap.map_mutex};
  const plat_devt device = make_dev(static_cast<u32>(snbf_blk_major), snap.minor);
  plat_bdev* bdev = snbf_open_bdev(device, PLAT_MODE_READ, PLAT_OPEN_SHARED, nullptr);
  if (bdev == nullptr) return;
  if (snap.blkbmp.valid == 0) {
    // What an earlier one has left, who failed.
    snbf_blkbmp_destroy(&snap.blkbmp);
    snbf_blkbmp_read(&snap.blkbmp, bdev, snap.chunk_size);
  }
  snbf_close_bdev(bdev, PLAT_OPEN_SHARED, PLAT_MODE_READ, nullptr);
}

}  // namespace snbf
