// SPDX-License-Identifier: GPL-2.0-only
// Owners of platform memory.
#pragma once

#include <new>

#include "base/string.h"
#include "base/types.h"
#include "platform/memory.h"

namespace snbf {

// Record on the heap, value-initialised, or null. Given back with snbf_plat_heap_free; such records need
// no destruction.
template <typename T>
T* heap_new(AllocMode mode) {
  void* block = snbf_plat_heap_alloc(sizeof(T), mode);
  return block == nullptr ? nullptr : ::new (block) T{};
}

// Virtually contiguous buffer, freed on leaving the scope.
class VirtBuffer {
 public:
  explicit VirtBuffer(size_t bytes) : area_(snbf_plat_virt_alloc(bytes)) {}
  ~VirtBuffer() { snbf_plat_virt_free(area_); }
  VirtBuffer(const VirtBuffer&) = delete;
  VirtBuffer& operator=(const VirtBuffer&) = delete;

  explicit operator bool() const { return area_ != nullptr; }
  u8* data() const { return static_cast<u8*>(area_); }

 private:
  void* area_;
};

}  // namespace snbf

// Zero-filled heap block; null on failure. Sleeps unless the mode is Atomic.
extern "C" void* kzalloc(plat_size bytes, plat_alloc_mode mode);
