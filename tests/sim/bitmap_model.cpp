#include "bitmap_model.h"

namespace snbf::model {

std::uint64_t BitmapModel::send(Extents extents) {
  const std::uint64_t ticket = next_ticket_++;
  may_.insert(extents.begin(), extents.end());
  in_flight_.emplace(ticket, Write{std::move(extents), ++clock_});
  return ticket;
}

void BitmapModel::end(std::uint64_t ticket, bool moved) {
  auto found = in_flight_.find(ticket);
  Write write = std::move(found->second);
  in_flight_.erase(found);
  const std::uint64_t now = ++clock_;
  if (!moved) {
    if (taking_) failed_meanwhile_.insert(write.extents.begin(), write.extents.end());
    return;
  }
  if (taking_) {
    unsettled_.emplace_back(std::move(write), now);
  } else {
    settle(write, now);
  }
}

void BitmapModel::settle(const Write& write, std::uint64_t acknowledged_at) {
  for (const std::uint64_t extent : write.extents) {
    bool certain = true;
    for (auto taking = takings_.rbegin(); taking != takings_.rend(); ++taking) {
      if (taking->ended_at < write.sent_at) break;
      if (taking->began_at > acknowledged_at) continue;
      // What was handed out may have been this write's bit; what was not was marked behind the taking.
      if (!taking->tells || taking->handed_out.contains(extent)) certain = false;
    }
    if (!certain) continue;
    must_.insert(extent);
    brought_.erase(extent);
  }
}

void BitmapModel::begin_taking() {
  taking_ = true;
  taking_began_at_ = ++clock_;
}

void BitmapModel::end_taking(const Extents* handed_out) {
  takings_.push_back({taking_began_at_, ++clock_, handed_out != nullptr,
                      handed_out != nullptr ? *handed_out : Extents{}});
  taking_ = false;
  must_.clear();
  brought_.clear();
  may_ = std::move(failed_meanwhile_);
  failed_meanwhile_.clear();
  for (const auto& [ticket, write] : in_flight_) {
    may_.insert(write.extents.begin(), write.extents.end());
  }
  for (const auto& [write, acknowledged_at] : unsettled_) {
    may_.insert(write.extents.begin(), write.extents.end());
    settle(write, acknowledged_at);
  }
  unsettled_.clear();
  // Only what may still be waited for by a write in flight needs remembering.
  if (in_flight_.empty()) takings_.clear();
}

void BitmapModel::cancel_taking() {
  taking_ = false;
  failed_meanwhile_.clear();
  for (const auto& [write, acknowledged_at] : unsettled_) settle(write, acknowledged_at);
  unsettled_.clear();
}

void BitmapModel::add(const Extents& extents) {
  for (const std::uint64_t extent : extents) {
    if (must_.insert(extent).second) brought_.insert(extent);
    may_.insert(extent);
  }
}

void BitmapModel::fill() {
  for (std::uint64_t extent = 0; extent < extent_count_; ++extent) add({extent});
}

void BitmapModel::load() {
  for (const std::uint64_t extent : brought_) must_.erase(extent);
  brought_.clear();
  for (std::uint64_t extent = 0; extent < extent_count_; ++extent) may_.insert(extent);
}

void BitmapModel::lose() {
  must_.clear();
  brought_.clear();
  for (const auto& [write, acknowledged_at] : unsettled_)
    failed_meanwhile_.insert(write.extents.begin(), write.extents.end());
  unsettled_.clear();
}

}  // namespace snbf::model
