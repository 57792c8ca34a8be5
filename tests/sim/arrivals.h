// The order in which a node passes requests on to its partition.
//
// What is under way at once a disk finishes in any order, so that the data says little of it. What the driver keeps
// is therefore judged as requests reach the disk:
//
//   - no write reaches it before an earlier request that it overlaps, whose sender had it taken by the node before
//     the write was sent;
//   - while the node has snaps, requests that overlap, one of them a write, are never there together.
//
// A read may overtake a write that waits: nobody has told its sender that the write is done. The driver's own requests
// (is_own) are not judged: a copy may take along what its snap does not promise, and read it while it is being written.
#pragma once

#include <map>

#include "block/node.h"
#include "sim_test.h"
#include "tally.h"

namespace snbf::rig {

class Arrivals {
 public:
  Arrivals(sim::Sim& kernel, Tally& tally) : sim_(kernel), tally_(tally) {}

  // From now on, what node `minor` passes on to `disk`.
  void watch(sim::Device* disk, sim::u32 minor = 0);
  // Before it is sent to the node; answers a ticket. `mark`: as in Device::Arrival.
  sim::u64 sending(const sim::Device::Arrival& request);
  // The node has taken it.
  void taken(sim::u64 ticket, const sim::Io& io);
  void ended(sim::u64 ticket);
  // Somebody is about to delete a snap, or the node.
  void snaps_may_go() { ++epoch_; }

 private:
  using u64 = sim::u64;
  struct Request {
    sim::Device::Arrival what;
    u64 sent_at;
    u64 taken_at = 0;  // 0: not yet
    sim::Io io;
    bool arrived = false;
    bool had_snaps;
    u64 epoch;

    bool is_write() const { return what.op != sim::Op::Read; }
    bool is_done() const { return taken_at != 0 && io.done(); }
    bool overlaps(const Request& other) const;
  };

  FilterNode* node() const;
  bool has_snaps() const;
  void judge_order(const Request& request);
  void judge_meeting(const Request& request);
  bool was_cloned(const Request& request) const;
  void arrived(const sim::Device::Arrival& what);

  sim::Sim& sim_;
  Tally& tally_;
  sim::Device* disk_ = nullptr;
  sim::u32 minor_ = 0;
  std::map<u64, Request> requests_;  // by ticket, as they were sent
  u64 next_ = 1;
  u64 clock_ = 0;
  u64 epoch_ = 0;
};

}  // namespace snbf::rig
