// SPDX-License-Identifier: GPL-2.0-only
#include "io/route.h"

#include "base/errno.h"
#include "base/string.h"
#include "core/log.h"
#include "filter/bmp.h"
#include "io/judge.h"
#include "snap/chunkset.h"
#include "snap/snapread.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "snbf_make_request";

struct Request {
  plat_bio* bio;
  plat_bio_info info;
  FilterNode* pass_to = nullptr;  // whose partition gets it in place

  SectorRange sectors() const { return {Sector{info.sector}, info.size_bytes >> 9}; }
  u32 minor() const { return dev_minor(info.device); }
};

bool is_cow_thread() {
  char name[PLAT_TASK_NAME_BYTES];
  snbf_plat_task_name(name);
  return text_contains(name, "kcowd");
}

// Hands the caller's own request to the COW thread. A clone of it is dropped first: an append may
// wait for memory that requests in flight hold, and the clone is one of those.
int hold_request(FilterNode& filter, plat_bio* bio, plat_bio* clone, AllocMode mode) {
  if (clone != nullptr) snbf_plat_bio_put(clone);
  return snbf_cowqueue_append(&filter.cowqueue, newest_started_minor(filter), bio, mode);
}

// Stops counting where the verdict is settled: a chunk in use, and one not copied.
ChunkCount count_chunks(SnapNode& snap, BlockSpan span) {
  ChunkCount chunks = {span.count(), 0, 0};
  for (u64 n = 0; n < chunks.all; ++n) {
    const u64 chunk = span.first + n;
    if (snbf_blkbmp_is_used(&snap.blkbmp, chunk)) ++chunks.in_use;
    if (snbf_cowbmp_is_set(&snap.cow_bmp, chunk)) ++chunks.copied;
    if (chunks.in_use > 0 && chunks.copied <= n) break;
  }
  return chunks;
}

// Whether the bit of a chunk is set, but not yet where a power cut leaves it.
bool is_unsafe(const FilterNode& filter, BlockSpan span) {
  const ChunkSet* unsafe = filter.cowthread.unsafe_chunks.load();
  if (unsafe == nullptr) return false;
  const u64 count = span.count();
  for (u64 n = 0; n < count; ++n) {
    if (unsafe->contains(static_cast<u32>(span.first + n))) return true;
  }
  return false;
}

Verdict ask_snap(const FilterNode& filter, SnapNode& snap, const SectorRange& sectors) {
  if (snap.snap_valid.load() == 0) {
    return filter.cowthread.giving_up.load() != 0 ? Verdict::Hold : judge_write(false, ChunkCount{});
  }
  const BlockSpan span = BlockGeometry{snap.chunk_shift}.covering(sectors);
  const ChunkCount chunks = count_chunks(snap, span);
  // Asked after the bits: whoever sees one that was set just now also sees its chunk in the set.
  if (chunks.copied > 0 && is_unsafe(filter, span)) return Verdict::Hold;
  return judge_write(true, chunks);
}

bool must_hold_read(SnapNode& snap, FilterNode& filter, const Request& request) {
  if (snbf_cowqueue_find_overlap_req(&filter.cowqueue, 0, 1, request.bio) != 0) return true;
  return is_any_chunk_copied(snap, request.sectors());
}

// For lack of memory: the COW thread, which may wait for it, sends the request on. Where there is no such
// thread nobody would.
int hold_unclonable(FilterNode& filter, plat_bio* bio, AllocMode mode) {
  if (filter.cowthread.pid.load() == 0) return -ENOMEM;
  return hold_request(filter, bio, nullptr, mode);
}

// A filter node with snaps: through the tracker or into the COW queue.
int route_beside_snaps(FilterNode& filter, const Request& request) {
  const AllocMode mode = request_alloc_mode();
  // A write that overlaps a held request waits behind it; that keeps writes to the same sectors in order.
  // Asked before there is a clone, which a held write would only drop: who may pass now, may pass for as
  // long as io_rwlock is held.
  if (request.info.is_write &&
      (snbf_cowqueue_find_overlap_req(&filter.cowqueue, 1, 1, request.bio) != 0 ||
       must_hold_write(filter, request.sectors()))) {
    return hold_request(filter, request.bio, nullptr, mode);
  }
  plat_bio* clone = snbf_aio_clone(&filter.aio, request.bio, 1, mode);
  if (clone == nullptr) return hold_unclonable(filter, request.bio, mode);
  snbf_plat_bio_submit(clone, filter.hdd_bdev);
  return 0;
}

// These routes answer 0 when the request is passed on or queued, else the error to complete it
// with. What is to be passed on in place is left to the caller, who holds no lock.

int pass_in_place(FilterNode& filter, Request& request) {
  filter.entering.fetch_add(1);
  request.pass_to = &filter;
  return 0;
}

// From behind the marking. The request's filter is held for reading.
[[gnu::always_inline]] inline int route_marked(FilterNode& filter, Request& request) {
  const bool has_data = request.info.size_bytes >= kSectorBytes;
  // A write that nobody could wait for must be known to the tracker, should a snap start meanwhile.
  const auto is_traceless = [&] {
    return !filter.can_drain || snbf_plat_bio_may_be_throttled(request.bio) != 0;
  };
  const bool as_clone = !filter.snaps.empty() || (request.info.is_write && is_traceless());
  if (has_data && as_clone) return route_beside_snaps(filter, request);
  return pass_in_place(filter, request);
}

int route_filter(FilterNode& filter, Request& request) {
  if (filter.io_rwlock.has_waiting_writer() && !is_cow_thread()) {
    filter.io_rwlock.pause_for_writer();
  }
  KsReadGuard io{filter.io_rwlock};
  filter.io_req_cnt.fetch_add(1);
  const bool is_marked = request.info.is_write && request.info.size_bytes >= kSectorBytes;
  if (is_marked && !mark_extents(filter, request.sectors(), request.bio)) return 0;  // parked
  return route_marked(filter, request);
}

[[gnu::noinline]] int refuse_stopped(const Node& node) {
  snbf_log(kLogError, "%s(): I/O request for snbf(%d, %d), which is in STOPPED state.", kOrigin,
           snbf_blk_major, static_cast<int>(node.minor));
  return -EIO;
}

// It has been counted as it came. Its bits are set again only where a command has taken them away since:
// the change that they stood for is still to come.
int route_again(FilterNode& filter, Request& request) {
  if (filter.started.load() == 0) return refuse_stopped(filter);
  KsReadGuard io{filter.io_rwlock};
  if (!mark_extents(filter, request.sectors(), request.bio, Arrival::Again)) return 0;
  return route_marked(filter, request);
}

int refuse_broken_snap(const SnapNode& snap) {
  snbf_log(kLogError,
           "%s(): I/O request for snbf(%d, %d), which is in STOP_PENDING state or INVALID.", kOrigin,
           snbf_blk_major, static_cast<int>(snap.minor));
  return -EIO;
}

int route_snap(SnapNode& snap, Request& request) {
  const int minor = static_cast<int>(snap.minor);
  if (snap.filter_node == nullptr || snap.filter_node->dev_type != kFilterNode) {
    snbf_log(kLogError, "%s(): Request for unattached snap device snbf(%d, %d)", kOrigin,
             snbf_blk_major, minor);
    return -EINVAL;
  }
  FilterNode& filter = *snap.filter_node;
  if (snap.snap_valid.load() == 0 || snap.stop_pending.load() != 0) {
    return refuse_broken_snap(snap);
  }
  if (request.info.is_write) {
    snbf_log(kLogError, "%s(): Write request to snap snbf(%d, %d)", kOrigin, snbf_blk_major, minor);
    return -EROFS;
  }
  if (request.info.size_bytes == 0) return pass_in_place(filter, request);
  const AllocMode mode = request_alloc_mode();
  // The tracker first and the bitmaps second: a write that arrives in between waits for this read,
  // which may be on its way to the partition for the old contents.
  plat_bio* clone = snbf_aio_clone(&filter.aio, request.bio, 1, mode);
  if (clone == nullptr) return hold_unclonable(filter, request.bio, mode);
  if (must_hold_read(snap, filter, request)) {
    return hold_request(filter, request.bio, clone, mode);
  }
  // Asked again now that the tracker knows of the read: writes that were held for this snap go on only
  // after it is given up.
  if (snap.snap_valid.load() == 0) {
    snbf_plat_bio_put(clone);
    return refuse_broken_snap(snap);
  }
  snbf_plat_bio_submit(clone, filter.hdd_bdev);
  return 0;
}

int route(Request& request) {
  Node* node = find_node(request.minor());
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Nothing is known about SNBF device with minor=%d", kOrigin,
             static_cast<int>(request.minor()));
    return -EINVAL;
  }
  if (node->started.load() == 0) [[unlikely]] return refuse_stopped(*node);
  switch (node->dev_type) {
    case kFilterNode:
      return route_filter(as_filter(*node), request);
    case kSnapNode:
      return route_snap(as_snap(*node), request);
    default:
      return 0;  // Kept: nothing answers a request to a node of no known kind.
  }
}

// Behind the routing: no lock is held any more.
[[gnu::always_inline]] inline void hand_over(Request& request, int rc) {
  if (request.pass_to != nullptr) {
    // A device whose queue is full holds its sender here, where he holds up nobody. The count keeps the record.
    snbf_plat_bio_forward(request.bio, request.pass_to->hdd_bdev);
    request.pass_to->entering.fetch_sub(1);
    return;
  }
  // A request that was passed on or queued is no longer ours to look at; only these errors leave it
  // here.
  if (rc < 0) snbf_plat_bio_complete(request.bio, rc);
}

}  // namespace

void continue_parked_write(FilterNode& filter, plat_bio* bio) {
  Request request = {bio, {}};
  snbf_plat_bio_info(bio, &request.info);
  snbf_blkdev_rwlock.read_lock();
  const int rc = route_again(filter, request);
  snbf_blkdev_rwlock.read_unlock();
  hand_over(request, rc);
}

bool must_hold_write(FilterNode& filter, const SectorRange& sectors) {
  using Snaps = List<SnapNode, BySnapOrder>;
  for (SnapNode* snap = filter.snaps.last(); snap != nullptr; snap = Snaps::prev(snap)) {
    if (snap->started.load() == 0) continue;
    switch (ask_snap(filter, *snap, sectors)) {
      case Verdict::Pass:
        return false;
      case Verdict::Hold:
        return true;
      case Verdict::AskOlderSnap:
        break;
    }
  }
  return false;
}

AllocMode request_alloc_mode() { return is_cow_thread() ? PLAT_ALLOC_ATOMIC : PLAT_ALLOC_NOIO; }

int newest_started_minor(const FilterNode& filter) {
  using Snaps = List<SnapNode, BySnapOrder>;
  for (const SnapNode* snap = filter.snaps.last(); snap != nullptr; snap = Snaps::prev(snap)) {
    if (snap->started.load() != 0) return static_cast<int>(snap->minor);
  }
  return 0;
}

}  // namespace snbf

using namespace snbf;

extern "C" int snbf_make_request(void* /*queue*/, plat_bio* bio) {
  Request request = {bio, {}};
  snbf_plat_bio_info(bio, &request.info);
  if (log_enabled(4)) {
    snbf_log(4, "%s(): minor=%d, sector=%lld, sectors=%d, rw=%d", kOrigin,
             static_cast<int>(request.minor()), static_cast<long long>(request.info.sector),
             static_cast<int>(request.info.size_bytes >> 9), request.info.is_write);
  }
  if (snbf_blkdev_rwlock.has_waiting_writer() && !is_cow_thread()) {
    snbf_blkdev_rwlock.pause_for_writer();
  }
  snbf_blkdev_rwlock.read_lock();
  const int rc = route(request);
  snbf_blkdev_rwlock.read_unlock();
  hand_over(request, rc);
  return 0;
}
