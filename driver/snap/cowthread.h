// SPDX-License-Identifier: GPL-2.0-only
// kcowd, the COW thread of a filter node, as its starter sees it.
//
// The thread serves the node's COW queue: it copies what held writes are about to overwrite, lets
// them go, and answers the snap reads that waited. One file operation of it may stall for as long as
// the store of the COW files likes; so beside it a watchdog sleeps, which after kStallLimitMs gives
// the snaps up that hang on that store and lets the held writes go in its place.
#pragma once

#include "core/sync.h"
#include "snap/chunkset.h"
#include "snap/stallgate.h"

namespace snbf {

struct CowRequest;
struct FilterNode;

constexpr u32 kCowThreadNameBytes = 64;

struct CowThread {
  char name[kCowThreadNameBytes] = {};
  Atomic<int> stop;
  Atomic<int> pid;  // 0: not running
  FilterNode* filter = nullptr;
  plat_completion done = {};

  plat_completion ready = {};
  int ready_error = 0;  // valid once `ready` is done
  plat_completion watchdog_done = {};
  StallGate gate;
  // Raised as a pass over the queue begins and as it ends: odd within one.
  Atomic<u32> pass;
  // While bits are set that their file does not hold durably yet: the chunks they stand for. A write
  // to one of them may not pass, whatever its bit says. Null otherwise.
  Atomic<const ChunkSet*> unsafe_chunks;
  // Snaps have just been given up, and their data files are not empty durably yet: until then a write that
  // passes could be found, after a power cut, in what looks like a whole image.
  Atomic<int> giving_up;
  Atomic<int> truncations_due;  // some snap's COW data file is to be emptied
  // The request that the thread reads for; the watchdog leaves it alone.
  Atomic<CowRequest*> in_service;
  u32 pass_number = 0;  // whoever serves the queue raises it

  // Never 0, which a request has that no pass has come by.
  u32 next_pass_number() { return pass_number += pass_number == ~u32{0} ? 2 : 1; }
};

}  // namespace snbf

// 0, -EALREADY, or the error of the start. An empty or null name stands for "kcowd". Start and stop
// of one thread are serialised by the node mutexes. May sleep.
int snbf_cowthread_start(snbf::CowThread* thread, const char* name, snbf::FilterNode* filter);
// Waits until the queue is empty, and for the thread's end. 0 also when it does not run.
int snbf_cowthread_shutdown(snbf::CowThread* thread);
// Ends the thread as it stands and fails every queued request with -EIO.
int snbf_cowthread_abort(snbf::CowThread* thread);
