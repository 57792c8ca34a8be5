// SPDX-License-Identifier: GPL-2.0-only
#include "snap/cowthread.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "base/string.h"
#include "block/node.h"
#include "core/log.h"
#include "snap/pass.h"
#include "snap/workset.h"

namespace snbf {

namespace {

constexpr char kDefaultName[] = "kcowd";

int refuse_null(const char* origin) {
  snbf_log(kLogError, "%s(): NULL thread pointer passed as input", origin);
  return -EINVAL;
}

void serve_until_stopped(CowThread& thread, WorkSet& work) {
  CowQueue& queue = thread.filter->cowqueue;
  while (thread.stop.load() == 0) {
    queue.wait.wait_idle([&] {
      return thread.stop.load() != 0 || queue.length() != 0 || thread.truncations_due.load() != 0;
    });
    if (log_enabled(4)) snbf_log(4, "%s(): mark: wait_event() is over.", kDefaultName);
    // Pass upon pass it would hardly ever leave the table to whoever wants to change it.
    snbf_blkdev_rwlock.pause_for_writer();
    serve_cow_queue(*thread.filter, work);
  }
}

void kcowd(void* argument) {
  auto& thread = *static_cast<CowThread*>(argument);
  snbf_log(1, "%s(): Initializing...", kDefaultName);
  snbf_plat_thread_serves_writes();
  WorkSet* work = make_work_set();
  if (work == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kDefaultName);
    thread.ready_error = -ENOMEM;
    snbf_plat_complete(&thread.ready);
    snbf_plat_thread_exit(&thread.done);
  }
  snbf_log(1, "%s(): COW will be done in groups of %d bytes", kDefaultName,
           static_cast<int>(kGroupBytes));
  snbf_log(1, "%s(): Preallocated %d pages and %d bio for %d chunks", kDefaultName,
           static_cast<int>(kGroupPages), static_cast<int>(kGroupPages),
           static_cast<int>(kGroupPages));
  snbf_plat_complete(&thread.ready);
  serve_until_stopped(thread, *work);
  free_work_set(work);
  snbf_plat_thread_exit(&thread.done);
}

void watchdog(void* argument) {
  auto& thread = *static_cast<CowThread*>(argument);
  snbf_plat_thread_serves_writes();
  while (thread.gate.wait_for_stall()) {
    if (!thread.gate.step_in()) continue;
    release_cow_queue(*thread.filter);
    thread.gate.step_out();
  }
  snbf_plat_thread_exit(&thread.watchdog_done);
}

void end_watchdog(CowThread& thread) {
  thread.gate.close();
  snbf_plat_completion_wait(&thread.watchdog_done);
}

// Both threads, or none. The pid of kcowd or a negative error.
int start_threads(CowThread& thread) {
  thread.gate.init();
  snbf_plat_completion_init(&thread.done);
  snbf_plat_completion_init(&thread.ready);
  snbf_plat_completion_init(&thread.watchdog_done);
  // Not named after kcowd: what it sends is not that thread's.
  if (int rc = snbf_plat_thread_start("ksnapwatch", watchdog, &thread); rc < 0) return rc;
  ScopeExit end{[&thread] { end_watchdog(thread); }};
  const int pid = snbf_plat_thread_start(thread.name, kcowd, &thread);
  if (pid < 0) return pid;
  snbf_plat_completion_wait(&thread.ready);
  if (thread.ready_error != 0) {
    snbf_plat_completion_wait(&thread.done);
    return thread.ready_error;
  }
  end.dismiss();
  return pid;
}

void set_record(CowThread& thread, const char* name, FilterNode* filter) {
  text_copy(thread.name, sizeof(thread.name), name);
  thread.stop.store(0);
  thread.pid.store(0);
  thread.filter = filter;
  thread.ready_error = 0;
}

void end_threads(CowThread& thread) {
  thread.stop.store(1);
  thread.filter->cowqueue.wait.wake();
  snbf_plat_completion_wait(&thread.done);
  end_watchdog(thread);
}

bool is_empty(CowQueue& queue) {
  SpinGuard hold{queue.lock};
  return queue.requests.empty();
}

}  // namespace

}  // namespace snbf

using namespace snbf;

int snbf_cowthread_start(CowThread* thread, const char* name, FilterNode* filter) {
  constexpr const char* kOrigin = "snbf_cowthread_start";
  if (thread == nullptr) return refuse_null(kOrigin);
  if (thread->pid.load() != 0) {
    snbf_log(kLogError, "%s(): COW thread is already running: pid=%d", kOrigin,
             thread->pid.load());
    return -EALREADY;
  }
  const bool is_named = name != nullptr && name[0] != '\0';
  set_record(*thread, is_named ? name : kDefaultName, filter);
  const int pid = start_threads(*thread);
  if (pid < 0) {
    snbf_log(kLogError, "%s(): Failed to start COW thread %s: rc=%d", kOrigin, thread->name, pid);
    return pid;
  }
  thread->pid.store(pid);
  snbf_log(1, "%s(): Successfully started COW thread %s. pid=%d...", kOrigin, thread->name, pid);
  return 0;
}

int snbf_cowthread_shutdown(CowThread* thread) {
  constexpr const char* kOrigin = "snbf_cowthread_shutdown";
  if (thread == nullptr) return refuse_null(kOrigin);
  if (thread->pid.load() == 0) return 0;
  snbf_log(1, "%s(): Stopping COW thread %s (pid=%d)...", kOrigin, thread->name,
           thread->pid.load());
  while (!is_empty(thread->filter->cowqueue)) snbf_plat_yield();
  end_threads(*thread);
  set_record(*thread, "", nullptr);
  return 0;
}

int snbf_cowthread_abort(CowThread* thread) {
  constexpr const char* kOrigin = "snbf_cowthread_abort";
  if (thread == nullptr) return refuse_null(kOrigin);
  if (thread->pid.load() == 0) return 0;
  snbf_log(1, "%s(): Aborting COW thread %s (pid=%d)...", kOrigin, thread->name,
           thread->pid.load());
  FilterNode* filter = thread->filter;
  end_threads(*thread);
  snbf_cowqueue_purge(&filter->cowqueue);
  set_record(*thread, "", nullptr);
  return 0;
}
