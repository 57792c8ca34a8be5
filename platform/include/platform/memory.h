/* SPDX-License-Identifier: GPL-2.0-only */
/* Memory: heap, virtually contiguous areas, pages, slab caches and pools, user memory. */
#ifndef SNBF_PLATFORM_MEMORY_H
#define SNBF_PLATFORM_MEMORY_H

#include "platform/types.h"

PLAT_BEGIN_DECLS

/* Heap block of `bytes`, contents undefined; null on failure. Sleeps unless the mode is Atomic. The caller frees it. */
void* snbf_plat_heap_alloc(plat_size bytes, plat_alloc_mode mode);
/* Any context. Null is allowed. */
void snbf_plat_heap_free(void* block);

/* Virtually contiguous area for large buffers, zero-filled; null on failure. May sleep. The caller frees it. */
void* snbf_plat_virt_alloc(plat_size bytes);
/* May sleep. Null is allowed. */
void snbf_plat_virt_free(void* area);

/* One page of 4096 bytes, contents undefined; null on failure. Sleeps unless the mode is Atomic. */
void* snbf_plat_page_alloc(plat_alloc_mode mode);
/* Any context. Null is allowed. */
void snbf_plat_page_free(void* page);

/* Slab cache of objects of `object_bytes`; null on failure. May sleep. Destroyed by the caller when no object is left. */
plat_cache* snbf_plat_cache_create(const char* name, plat_size object_bytes);
void snbf_plat_cache_destroy(plat_cache* cache);

/* Pool with a reserve of `reserve` objects over a cache; null on failure. May sleep. */
plat_pool* snbf_plat_pool_create(int reserve, plat_cache* cache);
void snbf_plat_pool_destroy(plat_pool* pool);
/*
 * Object from the pool, contents undefined; the cache first, then the reserve. With Normal and NoIo it waits
 * until one is given back and never answers null; with Atomic it answers null when both are exhausted.
 */
void* snbf_plat_pool_alloc(plat_pool* pool, plat_alloc_mode mode);
/* As above, but never waits for the reserve: null when nothing is at hand, whatever the mode. */
void* snbf_plat_pool_try_alloc(plat_pool* pool, plat_alloc_mode mode);
/* Any context. */
void snbf_plat_pool_free(plat_pool* pool, void* object);

/* 1 if [address, address + bytes) lies inside the caller's address space (it may still fault), else 0. */
int snbf_plat_user_range_ok(plat_u64 address, plat_u64 bytes);
/* Copy between kernel memory and the calling task's memory; answer the number of bytes not copied. May sleep. */
plat_size snbf_plat_copy_from_user(void* to, plat_u64 from_user, plat_size bytes);
plat_size snbf_plat_copy_to_user(plat_u64 to_user, const void* from, plat_size bytes);

/*
 * Pins the pages of the caller's buffer so that it can be copied under a spin lock. `writable` non-zero: the
 * driver will write into it. Fewer pages than asked for may be pinned, always a prefix (pinned_bytes tells);
 * null when there is no memory for the bookkeeping. May sleep. Released with unpin, which may sleep.
 */
plat_user_pin* snbf_plat_user_pin(plat_u64 address, plat_size bytes, int writable);
plat_size snbf_plat_user_pinned_bytes(const plat_user_pin* pin);
/* Copy at byte `offset` of the pinned buffer; the range must be pinned. Never sleeps, never faults. */
void snbf_plat_user_pin_write(plat_user_pin* pin, plat_size offset, const void* from, plat_size bytes);
void snbf_plat_user_pin_read(plat_user_pin* pin, plat_size offset, void* to, plat_size bytes);
void snbf_plat_user_unpin(plat_user_pin* pin);

PLAT_END_DECLS
#endif
