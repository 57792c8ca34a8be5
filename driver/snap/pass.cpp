// SPDX-License-Identifier: GPL-2.0-only
#include "snap/pass.h"

#include "base/errno.h"
#include "base/units.h"
#include "core/log.h"
#include "snap/cowgroup.h"
#include "snap/invalidate.h"
#include "snap/snapread.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "kcowd";

using Requests = List<CowRequest, CowInQueue>;

// What happens to a request at the cursor.
enum class Fate {
  Leave,    // it stays, and the scan goes on
  Release,  // a clone of it goes to the partition
  Fail,     // -EIO
  Serve,    // a snap read that needs COW data files
  Gather,   // a write whose chunks are to be copied first
};

class Pass {
 public:
  // Without a work set it is the watchdog's: it copies and reads nothing.
  Pass(FilterNode& filter, WorkSet* work)
      : filter_(filter), queue_(filter.cowqueue), work_(work) {}

  void run();

 private:
  Fate judge(const CowRequest& request) REQUIRES(queue_.lock);
  Fate judge_filter_request(const CowRequest& request, const plat_bio_info& info)
      REQUIRES(queue_.lock);
  Fate judge_snap_read(const plat_bio_info& info);
  SnapNode* snap_of(const plat_bio_info& info);
  bool are_all_copied(const SnapNode& snap, const plat_bio_info& info) const;
  // False: the group takes no more, and the scan is over.
  bool gather(const CowRequest& request) REQUIRES(queue_.lock);
  void release(SpinGuard& hold, CowRequest* request) REQUIRES(queue_.lock);
  void complete(SpinGuard& hold, CowRequest* request, int error) REQUIRES(queue_.lock);
  void serve(SpinGuard& hold, CowRequest* request) REQUIRES(queue_.lock);
  bool act(SpinGuard& hold, CowRequest* request, Fate fate) REQUIRES(queue_.lock);
  bool is_too_late(const CowRequest& request) REQUIRES(queue_.lock);
  void scan();

  FilterNode& filter_;
  CowQueue& queue_;
  WorkSet* work_;
  u32 number_ = 0;
  int newcomers_left_ = 0;  // of those that no pass has come by, as many as this one acts on
  SnapNode* group_snap_ = nullptr;
  bool is_over_ = false;
};

SectorRange sectors_of(const plat_bio_info& info) {
  return {Sector{info.sector}, info.size_bytes >> 9};
}

BlockSpan chunks_of(const SnapNode& snap, const plat_bio_info& info) {
  return BlockGeometry{snap.chunk_shift}.covering(sectors_of(info));
}

plat_bio_info info_of(const CowRequest& request) {
  plat_bio_info info;
  snbf_plat_bio_info(request.bio, &info);
  return info;
}

SnapNode* Pass::snap_of(const plat_bio_info& info) {
  Node* node = find_node(dev_minor(info.device));
  if (node == nullptr || node->dev_type != kSnapNode) return nullptr;
  return as_snap(*node).filter_node == &filter_ ? &as_snap(*node) : nullptr;
}

bool Pass::are_all_copied(const SnapNode& snap, const plat_bio_info& info) const {
  const BlockSpan span = chunks_of(snap, info);
  const u64 count = span.count();
  for (u64 n = 0; n < count; ++n) {
    if (!snbf_cowbmp_is_set(&snap.cow_bmp, span.first + n)) return false;
  }
  return true;
}

Fate Pass::judge_snap_read(const plat_bio_info& info) {
  SnapNode* snap = snap_of(info);
  if (snap == nullptr) {
    snbf_log(kLogError, "%s(): Request to unknown snbf(%d, %d) in snbf(%d, %d) queue", kOrigin,
             static_cast<int>(dev_major(info.device)), static_cast<int>(dev_minor(info.device)),
             snbf_blk_major, static_cast<int>(filter_.minor));
    return Fate::Fail;
  }
  const bool readable = snap->started.load() != 0 && snap->snap_valid.load() != 0 &&
                        snap->stop_pending.load() == 0;
  if (!readable) return Fate::Fail;
  if (work_ == nullptr) return Fate::Leave;
  return is_any_chunk_copied(*snap, sectors_of(info)) ? Fate::Serve : Fate::Release;
}

Fate Pass::judge_filter_request(const CowRequest& request, const plat_bio_info& info) {
  // Overlapping requests keep their order; others may pass.
  if (snbf_cowqueue_find_left_overlap(&queue_, &request, number_) != 0) return Fate::Leave;
  if (!info.is_write) return Fate::Release;
  SnapNode* snap = find_copying_snap(filter_, request.minor);
  if (snap == nullptr || are_all_copied(*snap, info)) return Fate::Release;
  return work_ == nullptr ? Fate::Leave : Fate::Gather;
}

Fate Pass::judge(const CowRequest& request) {
  const plat_bio_info info = info_of(request);
  if (dev_major(info.device) != static_cast<u32>(snbf_blk_major)) {
    snbf_log(kLogError, "%s(): Request to unknown block device in COW request queue", kOrigin);
    return Fate::Fail;
  }
  if (dev_minor(info.device) == filter_.minor) return judge_filter_request(request, info);
  return judge_snap_read(info);
}

bool Pass::gather(const CowRequest& request) {
  SnapNode* snap = find_copying_snap(filter_, request.minor);
  if (group_snap_ != nullptr && group_snap_ != snap) return false;
  if (snap == nullptr) return true;  // given up just now: the next pass lets the write go
  group_snap_ = snap;
  const u32 capacity = group_capacity(snap->chunk_shift);
  const BlockSpan span = chunks_of(*snap, info_of(request));
  const u64 count = span.count();
  for (u64 n = 0; n < count; ++n) {
    if (snbf_cowbmp_is_set(&snap->cow_bmp, span.first + n)) continue;
    work_->chunks.add(static_cast<u32>(span.first + n));
    if (work_->chunks.count() == capacity) return false;
  }
  return true;
}

// The clone first: from then on the tracker knows of the request, so that at no time neither it nor the
// queue does. It waits for what is in flight and overlaps: a snap's read of the old contents, above all.
void Pass::release(SpinGuard& hold, CowRequest* request) {
  plat_bio* const bio = request->bio;
  plat_bio* clone = nullptr;
  hold.unlocked([&] { clone = snbf_aio_clone(&filter_.aio, bio, 1, PLAT_ALLOC_NOIO); });
  if (clone == nullptr) {
    snbf_log(kLogError, "%s(): Failed to clone BIO", kOrigin);
    complete(hold, request, -EIO);
    return;
  }
  snbf_cowqueue_remove(&queue_, request);
  hold.unlocked([&] { snbf_plat_bio_submit(clone, filter_.hdd_bdev); });
}

void Pass::complete(SpinGuard& hold, CowRequest* request, int error) {
  plat_bio* const bio = request->bio;
  snbf_cowqueue_remove(&queue_, request);
  hold.unlocked([&] { snbf_plat_bio_complete(bio, error); });
}

void Pass::serve(SpinGuard& hold, CowRequest* request) {
  plat_bio* const bio = request->bio;
  SnapNode* snap = snap_of(info_of(*request));
  SnapReadResult result = {};
  filter_.cowthread.in_service.store(request);
  hold.unlocked([&] { result = serve_snap_read(*snap, bio, *work_); });
  filter_.cowthread.in_service.store(nullptr);
  // Where the cursor would go next, the watchdog may have taken out.
  if (result.was_watched) is_over_ = true;
  complete(hold, request, result.error);
}

// False: the scan is over.
bool Pass::act(SpinGuard& hold, CowRequest* request, Fate fate) {
  switch (fate) {
    case Fate::Release:
      release(hold, request);
      return true;
    case Fate::Fail:
      complete(hold, request, -EIO);
      return true;
    case Fate::Serve:
      serve(hold, request);
      return !is_over_;
    case Fate::Gather:
      request->left_by_pass = number_;
      return gather(*request);
    case Fate::Leave:
      break;
  }
  request->left_by_pass = number_;
  return true;
}

// Whether a request may have come in while the scan was at work. While one read is served the next
// arrives, and without an end of the scan the copies that writes wait for would never begin.
bool Pass::is_too_late(const CowRequest& request) {
  return request.left_by_pass == 0 && newcomers_left_-- <= 0;
}

void Pass::scan() {
  SpinGuard hold{queue_.lock};
  newcomers_left_ = queue_.length();
  CowRequest* request = queue_.requests.first();
  // Only who serves the queue takes requests out, so the one at the cursor stays while the lock is open;
  // others may come in before and behind it.
  CowRequest* before = nullptr;
  while (request != nullptr) {
    if (work_ == nullptr && filter_.cowthread.in_service.load() == request) {
      before = request;
      request = Requests::next(request);
      continue;
    }
    Fate fate = judge(*request);
    bool stays = fate == Fate::Leave || fate == Fate::Gather;
    if (!stays && is_too_late(*request)) {
      fate = Fate::Leave;
      stays = true;
    }
    if (!act(hold, request, fate)) return;
    if (stays) before = request;
    request = before != nullptr ? Requests::next(before) : queue_.requests.first();
  }
}

void Pass::run() {
  number_ = filter_.cowthread.next_pass_number();
  scan();
  if (work_ == nullptr || group_snap_ == nullptr) return;
  copy_group(filter_, *group_snap_, *work_);
  work_->chunks.clear();
}

}  // namespace

void serve_cow_queue(FilterNode& filter, WorkSet& work) {
  KsReadGuard table{snbf_blkdev_rwlock};
  filter.cowthread.pass.fetch_add(1);
  do_due_truncations(filter);
  Pass{filter, &work}.run();
  filter.cowthread.pass.fetch_add(1);
}

void release_cow_queue(FilterNode& filter) {
  KsReadGuard table{snbf_blkdev_rwlock};
  CowQueue& queue = filter.cowqueue;
  const auto give_up = [&](int minor) {
    if (SnapNode* snap = find_copying_snap(filter, minor)) invalidate_snaps_without_files(*snap);
  };
  filter.cowthread.giving_up.store(0);  // it may be this that stalls
  give_up(static_cast<int>(filter.cowthread.gate.snap_minor()));
  {
    SpinGuard hold{queue.lock};
    for (CowRequest* request = queue.requests.first(); request != nullptr;
         request = Requests::next(request)) {
      if (info_of(*request).is_write) give_up(request->minor);
    }
  }
  Pass{filter, nullptr}.run();
}

}  // namespace snbf
