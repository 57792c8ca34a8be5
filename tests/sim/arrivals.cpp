#include "arrivals.h"

#include <algorithm>

namespace snbf::rig {

using sim::Device;
using sim::Sim;

namespace {

std::string show(const Device::Arrival& what) {
  constexpr const char* kOps[] = {"read", "write", "flush", "discard", "zeroes", "erase"};
  return std::string("the ") + kOps[static_cast<int>(what.op)] + " of " +
         std::to_string(what.bytes / 512) + " sectors at " + std::to_string(what.sector);
}

}  // namespace

bool Arrivals::Request::overlaps(const Request& other) const {
  return what.sector < other.what.sector + other.what.bytes / 512 &&
         other.what.sector < what.sector + what.bytes / 512;
}

void Arrivals::watch(Device* disk, sim::u32 minor) {
  disk_ = disk;
  minor_ = minor;
  disk->on_arrival([this](const Device::Arrival& what) { arrived(what); });
}

// Only the table changes under us, and nobody runs beside us.
FilterNode* Arrivals::node() const {
  if (!sim_.driver_loaded()) return nullptr;
  Node* node = find_node(minor_);
  return node == nullptr || node->dev_type != kFilterNode ? nullptr : &as_filter(*node);
}

bool Arrivals::has_snaps() const {
  const FilterNode* filter = node();
  return filter != nullptr && !filter->snaps.empty();
}

sim::u64 Arrivals::sending(const Device::Arrival& what) {
  const Sim::Quiet quiet(sim_);
  const Request request = {
      .what = what, .sent_at = ++clock_, .io = {}, .had_snaps = has_snaps(), .epoch = epoch_};
  const FilterNode* filter = node();
  if (filter != nullptr) {
    if (filter->parking.writes.load() != 0) ++tally_[Met::Parked];
    if (filter->cowqueue.writes.load() != 0) ++tally_[Met::Held];
  }
  requests_.emplace(next_, request);
  return next_++;
}

void Arrivals::taken(u64 ticket, const sim::Io& io) {
  Request& request = requests_.at(ticket);
  request.taken_at = ++clock_;
  request.io = io;
}

void Arrivals::ended(u64 ticket) { requests_.erase(ticket); }

bool Arrivals::was_cloned(const Request& request) const {
  return request.had_snaps && request.epoch == epoch_ && has_snaps();
}

void Arrivals::judge_order(const Request& request) {
  if (!request.is_write()) return;
  for (const auto& [ticket, earlier] : requests_) {
    if (earlier.taken_at == 0 || earlier.taken_at > request.sent_at || !request.overlaps(earlier))
      continue;
    if (earlier.is_done()) continue;
    ++tally_[Met::Pair];
    if (!earlier.arrived) {
      ADD_FAILURE() << show(request.what) << " overtakes " << show(earlier.what);
    }
  }
}

void Arrivals::judge_meeting(const Request& request) {
  if (!was_cloned(request)) return;
  const std::vector<Device::Arrival> under_way = disk_->under_way();
  for (const auto& [ticket, other] : requests_) {
    if (!other.arrived || other.is_done() || !was_cloned(other)) continue;
    if (!(request.is_write() || other.is_write()) || !request.overlaps(other)) continue;
    if (std::ranges::count(under_way, other.what) != 0) {
      ADD_FAILURE() << show(request.what) << " is at the disk together with " << show(other.what);
    }
  }
}

void Arrivals::arrived(const Device::Arrival& what) {
  const Sim::Quiet quiet(sim_);
  for (auto& [ticket, request] : requests_) {
    if (request.arrived || request.is_done() || request.what != what) continue;
    judge_order(request);
    judge_meeting(request);
    request.arrived = true;
    return;
  }
}

}  // namespace snbf::rig
