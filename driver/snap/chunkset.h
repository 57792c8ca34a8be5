// SPDX-License-Identifier: GPL-2.0-only
// The chunks of one COW group: at most kGroupPages of them, in the order in which they were added,
// with a hash for the question whether one is among them.
//
// One task fills and clears it; any other may ask at the same time. A question about a chunk that was
// added before it was asked is answered with yes until the set is cleared.
#pragma once

#include "base/atomic.h"
#include "base/types.h"

namespace snbf {

constexpr u32 kGroupPages = 1024;

class ChunkSet {
 public:
  // False when it is in the set already. The set is not full.
  bool add(u32 chunk) {
    u32 slot = slot_of(chunk);
    for (u32 found; (found = slots_[slot].load(std::memory_order_relaxed)) != kEmpty;
         slot = next(slot)) {
      if (found == chunk) return false;
    }
    used_slots_[count_] = static_cast<u16>(slot);
    chunks_[count_++] = chunk;
    slots_[slot].store(chunk, std::memory_order_release);
    return true;
  }
  void clear() {
    while (count_ > 0) slots_[used_slots_[--count_]].store(kEmpty, std::memory_order_relaxed);
  }
  // Any context.
  bool contains(u32 chunk) const {
    u32 slot = slot_of(chunk);
    for (u32 found; (found = slots_[slot].load(std::memory_order_acquire)) != kEmpty;
         slot = next(slot)) {
      if (found == chunk) return true;
    }
    return false;
  }
  u32 count() const { return count_; }
  u32 chunk(u32 index) const { return chunks_[index]; }
  const u32* chunks() const { return chunks_; }

  // Of memory that holds zeros.
  void init() {
    for (Atomic<u32>& slot : slots_) slot.store(kEmpty, std::memory_order_relaxed);
  }

 private:
  static constexpr u32 kSlots = 4 * kGroupPages;
  static constexpr u32 kEmpty = ~u32{0};  // no chunk: there are at most 2^30

  // Neighbours lie side by side, and far multiples of the table apart.
  static u32 slot_of(u32 chunk) { return (chunk ^ chunk >> 12) & (kSlots - 1); }
  static u32 next(u32 slot) { return (slot + 1) & (kSlots - 1); }

  u32 count_ = 0;
  u32 chunks_[kGroupPages] = {};
  u16 used_slots_[kGroupPages] = {};
  Atomic<u32> slots_[kSlots];
};

}  // namespace snbf
