// SPDX-License-Identifier: GPL-2.0-only
// What the bytes of a copy go into.
#pragma once

#include <cstddef>
#include <cstdint>

namespace snbf {

class Sink {
 public:
  static constexpr size_t kSlotBytes = 1 << 20;

  virtual ~Sink() = default;
  // A free buffer of kSlotBytes, aligned for direct reads; waits for one if need be. It is the
  // caller's until the next call of this function; what was queued from it stays until it is done.
  virtual uint8_t* next_buffer() = 0;
  // Queue bytes of the buffer handed out last. The caller goes from the first byte to the last,
  // except where it writes what it has written again.
  virtual void write(const uint8_t* bytes, uint64_t length, uint64_t offset) = 0;
  virtual void zero(uint64_t length, uint64_t offset) = 0;
  // Everything queued has arrived.
  virtual void finish() = 0;
};

}  // namespace snbf
