// SPDX-License-Identifier: GPL-2.0-only
#include "core/memory.h"

extern "C" void* kzalloc(plat_size bytes, plat_alloc_mode mode) {
  void* block = snbf_plat_heap_alloc(bytes, mode);
  if (block != nullptr) snbf::mem_set(block, 0, bytes);
  return block;
}
