// SPDX-License-Identifier: GPL-2.0-only
#include "filter/kdirtyd.h"

#include "base/errno.h"
#include "core/log.h"
#include "core/memory.h"
#include "filter/bmp.h"
#include "filter/bmpfile.h"
#include "io/route.h"
#include "util/path.h"

namespace snbf {

namespace {

struct InReqList;

struct snbf_dirty_req : ListLink<InReqList> {
  int valid = 0;  // under req_spin; 0: cancelled, and kdirtyd only removes it
  FilterNode* node = nullptr;
  u32 bmp_type = 0;
};

constexpr int kMaxChain = 4;

constinit SpinLock req_spin;
constinit List<snbf_dirty_req, InReqList> req_list;  // oldest first
constinit Atomic<int> req_cnt;  // of req_list; the thread waits for it without the lock
constinit WaitQueue req_wait;
constinit Atomic<int> kdirtyd_abort;
constinit int kdirtyd_started = 0;  // only the caller of start and stop looks at it
constinit plat_completion kdirtyd_exited = {};

bool is_valid(const snbf_dirty_req& request) {
  SpinGuard hold{req_spin};
  return request.valid != 0;
}

// Only kdirtyd removes requests, so the oldest stays where it is until it does.
snbf_dirty_req* oldest_request() {
  SpinGuard hold{req_spin};
  return req_list.first();
}

void drop(snbf_dirty_req* request) {
  {
    SpinGuard hold{req_spin};
    req_list.remove(request);
    req_cnt.fetch_sub(1);
  }
  put_filter_node(*request->node);
  snbf_plat_heap_free(request);
}

// A filter node, with a hold on its record, on which the file's file system lies; null if it lies on none.
FilterNode* hold_node_below(const FilterNode& node, u32 type) {
  const plat_devt device =
      snbf_get_file_devt(type == SNBF_BMP_INCR ? node.incr_bmp_fname : node.diff_bmp_fname);
  if (dev_major(device) != static_cast<u32>(snbf_blk_major)) return nullptr;
  KsReadGuard table{snbf_blkdev_rwlock};
  Node* below = find_node(dev_minor(device));
  if (below == nullptr || below->dev_type != kFilterNode || below == &node) return nullptr;
  as_filter(*below).holders.fetch_add(1);
  return &as_filter(*below);
}

// The file shows nothing of the bitmap from then on, so that is to be saved again. bmp_mutex is held.
void cut_file_down(FilterNode& node, u32 type) {
  const ChangeBitmap bitmap{node, type};
  {
    SpinGuard hold{bitmap.node.bmp_spin};
    bitmap.set_dirty(1);
  }
  snbf_block_write_dirty_flag(node, type, 1);
}

void raise_flag(FilterNode& node, u32 type) {
  const ChangeBitmap bitmap{node, type};
  KsMutexGuard file_work{node.bmp_mutex};
  // The flag before this one may have outlasted the node: its files may be another's by now.
  if (node.parking.stop.load() != 0 || node.started.load() == 0) return;
  {
    SpinGuard hold{bitmap.node.bmp_spin};
    if (bitmap.guard().is_guarded()) return;
  }
  cut_file_down(node, type);
}

// What this thread writes into a file on another node would wait there for a flag that only this thread
// raises. So the flags of that node come first, and before them those of the node below it. In a ring there is
// no first: the limit of the parked writes ends it.
void raise_flags_below(const FilterNode& node, u32 type) {
  FilterNode* chain[kMaxChain];
  int length = 0;
  const FilterNode* above = &node;
  while (length < kMaxChain) {
    FilterNode* below = hold_node_below(*above, type);
    if (below == nullptr) break;
    chain[length++] = below;
    above = below;
  }
  while (length > 0) {
    FilterNode* below = chain[--length];
    raise_flag(*below, SNBF_BMP_INCR);
    raise_flag(*below, SNBF_BMP_DIFF);
    put_filter_node(*below);
  }
}

// A save may cancel the request while this thread waits for the mutex: hence the second look.
void serve(snbf_dirty_req& request) {
  if (!is_valid(request)) return;
  raise_flags_below(*request.node, request.bmp_type);
  KsMutexGuard file_work{request.node->bmp_mutex};
  if (is_valid(request)) cut_file_down(*request.node, request.bmp_type);
}

// Whoever waits for the flag may ask again.
void forget_request(FilterNode& node, u32 type) {
  const ChangeBitmap bitmap{node, type};
  SpinGuard hold{bitmap.node.bmp_spin};
  bitmap.guard().request_is_gone();
}

bool has_requests(const FilterNode& node) {
  SpinGuard hold{req_spin};
  for (snbf_dirty_req* request = req_list.first(); request != nullptr;
       request = List<snbf_dirty_req, InReqList>::next(request)) {
    if (request->node == &node) return true;
  }
  return false;
}

void kdirtyd(void* /*unused*/) {
  constexpr const char* kOrigin = "kdirtyd";
  snbf_log(1, "%s(): Started.", kOrigin);
  snbf_plat_thread_serves_writes();
  while (kdirtyd_abort.load() == 0) {
    snbf_log(2, "%s(): Waiting for dirty requests to come...", kOrigin);
    req_wait.wait_idle([] { return req_cnt.load() != 0 || kdirtyd_abort.load() != 0; });
    if (kdirtyd_abort.load() != 0) break;
    snbf_log(2, "%s(): Got %d requests in queue", kOrigin, req_cnt.load());
    snbf_dirty_req* request = oldest_request();
    serve(*request);
    // Only now: whoever waits for the node's requests waits for the write, too.
    drop(request);
  }
  while (snbf_dirty_req* request = oldest_request()) drop(request);
  snbf_log(1, "%s(): Terminated.", kOrigin);
  snbf_plat_thread_exit(&kdirtyd_exited);
}

}  // namespace

}  // namespace snbf

using namespace snbf;

int snbf_start_kdirtyd() {
  constexpr const char* kOrigin = "snbf_start_kdirtyd";
  snbf_log(1, "%s(): Starting kdirtyd", kOrigin);
  if (kdirtyd_started != 0) {
    snbf_log(kLogError, "%s(): kdirtyd has already been started.", kOrigin);
    return -EALREADY;
  }
  req_spin.init("req_spin");
  req_wait.init();
  req_cnt.store(0);
  snbf_plat_completion_init(&kdirtyd_exited);
  kdirtyd_abort.store(0);
  const int pid = snbf_plat_thread_start("kdirtyd", kdirtyd, nullptr);
  if (pid < 0) {
    snbf_log(kLogError, "%s(): Failed to start kdirtyd: rc=%d", kOrigin, pid);
    return pid;
  }
  kdirtyd_started = 1;
  snbf_log(2, "%s(): kdirtyd has been started successfully: pid=%d", kOrigin, pid);
  return 0;
}

int snbf_stop_kdirtyd() {
  constexpr const char* kOrigin = "snbf_stop_kdirtyd";
  snbf_log(1, "%s(): Stopping kdirtyd", kOrigin);
  if (kdirtyd_started == 0) {
    snbf_log(kLogError, "%s(): kdirtyd is not running.", kOrigin);
    return -ESRCH;
  }
  kdirtyd_abort.store(1);
  req_wait.wake();
  snbf_plat_completion_wait(&kdirtyd_exited);
  kdirtyd_started = 0;
  snbf_log(2, "%s(): kdirtyd has been stopped successfully", kOrigin);
  return 0;
}

int snbf_sched_write_dirty_flag(FilterNode& node, u32 type) {
  constexpr const char* kOrigin = "snbf_sched_write_dirty_flag";
  snbf_log(2, "%s(): Appending dirty request for %s bitmap of snbf(%d, %d)", kOrigin,
           bmp_type_text(type), snbf_blk_major, static_cast<int>(node.minor));
  // It may sleep, but starts no I/O: the submitter may be reclaiming memory, and the write that it
  // submits is what the memory waits for. A COW thread does not even sleep; whoever is parked asks again.
  auto* request = heap_new<snbf_dirty_req>(request_alloc_mode());
  if (request == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failure", kOrigin);
    forget_request(node, type);
    return -ENOMEM;
  }
  request->valid = 1;
  node.holders.fetch_add(1);
  request->node = &node;
  request->bmp_type = type;
  {
    SpinGuard hold{req_spin};
    req_list.push_back(request);
    req_cnt.fetch_add(1);
  }
  req_wait.wake();
  return 0;
}

int snbf_kill_dirty_requests(FilterNode& node, u32 type) {
  snbf_log(2, "%s(): Killing all dirty requests for %s bitmap of snbf(%d, %d)",
           "snbf_kill_dirty_requests", bmp_type_text(type), snbf_blk_major,
           static_cast<int>(node.minor));
  {
    SpinGuard hold{req_spin};
    for (snbf_dirty_req* request = req_list.first(); request != nullptr;
         request = List<snbf_dirty_req, InReqList>::next(request)) {
      if (request->node == &node && request->bmp_type == type) request->valid = 0;
    }
  }
  forget_request(node, type);
  return 0;
}

int snbf_yield_to_dirty_requests(FilterNode& node, int seconds) {
  constexpr const char* kOrigin = "snbf_yield_to_dirty_requests";
  if (seconds < 1) {
    while (has_requests(node)) {  // Kept: the processor is not given up, and nobody calls it so.
    }
    return 0;
  }
  const u64 deadline_ms = snbf_plat_ticks_ms() + static_cast<u64>(seconds) * 1000;
  while (snbf_plat_ticks_ms() < deadline_ms) {
    if (!has_requests(node)) return 0;
    snbf_plat_yield();
  }
  snbf_log(
      kLogError,
      "%s(): There are still some dirty requests pending for snbf(%d, %d). Continuing anyway...",
      kOrigin, snbf_blk_major, static_cast<int>(node.minor));
  return -ETIMEDOUT;
}
