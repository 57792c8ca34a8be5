// SPDX-License-Identifier: GPL-2.0-only
/* Memory: heap, virtually contiguous areas, pages, slab caches and pools, user memory. */
#include "platform/memory.h"

#include <linux/highmem.h>
#include <linux/mempool.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>

#include "gfp.h"

void* snbf_plat_heap_alloc(plat_size bytes, plat_alloc_mode mode) {
  return kmalloc(bytes, snbf_gfp(mode));
}

void snbf_plat_heap_free(void* block) { kfree(block); }

void* snbf_plat_virt_alloc(plat_size bytes) {
  return __vmalloc(bytes, snbf_gfp(PLAT_ALLOC_NORMAL) | __GFP_ZERO);
}

void snbf_plat_virt_free(void* area) { vfree(area); }

void* snbf_plat_page_alloc(plat_alloc_mode mode) { return (void*)__get_free_page(snbf_gfp(mode)); }

void snbf_plat_page_free(void* page) { free_page((unsigned long)page); }

plat_cache* snbf_plat_cache_create(const char* name, plat_size object_bytes) {
  return (plat_cache*)kmem_cache_create(name, object_bytes, 0, 0, NULL);
}

void snbf_plat_cache_destroy(plat_cache* cache) { kmem_cache_destroy((struct kmem_cache*)cache); }

/*
 * The detectors of a debug kernel keep books on each object, which makes a node's reserves half a minute of an
 * emulated machine. There they hold what the largest request needs at once: 4 MiB of blocks of 4 KiB, and one.
 */
#define RESERVE_LIMIT (IS_ENABLED(CONFIG_KASAN) ? 1025 : INT_MAX)

plat_pool* snbf_plat_pool_create(int reserve, plat_cache* cache) {
  return (plat_pool*)mempool_create_slab_pool(min(reserve, RESERVE_LIMIT), (struct kmem_cache*)cache);
}

void snbf_plat_pool_destroy(plat_pool* pool) { mempool_destroy((mempool_t*)pool); }

/* As the pool itself does at first, without its way there: every request takes this one. */
static void* take_from_cache(const mempool_t* pool, gfp_t gfp) {
  return kmem_cache_alloc(pool->pool_data, (gfp & ~__GFP_DIRECT_RECLAIM) | __GFP_NOMEMALLOC);
}

void* snbf_plat_pool_alloc(plat_pool* pool, plat_alloc_mode mode) {
  void* object = take_from_cache((mempool_t*)pool, snbf_gfp(mode));

  return likely(object) ? object : mempool_alloc((mempool_t*)pool, snbf_gfp(mode));
}

void* snbf_plat_pool_try_alloc(plat_pool* pool, plat_alloc_mode mode) {
  const gfp_t gfp = snbf_gfp(mode) & ~__GFP_DIRECT_RECLAIM;
  void* object = take_from_cache((mempool_t*)pool, gfp);

  /* A pool waits for its reserve exactly when the allocation may reclaim directly. */
  return likely(object) ? object : mempool_alloc((mempool_t*)pool, gfp);
}

void snbf_plat_pool_free(plat_pool* pool, void* object) { mempool_free(object, (mempool_t*)pool); }

int snbf_plat_user_range_ok(plat_u64 address, plat_u64 bytes) {
  return access_ok((const void __user*)(unsigned long)address, bytes);
}

plat_size snbf_plat_copy_from_user(void* to, plat_u64 from_user, plat_size bytes) {
  return copy_from_user(to, (const void __user*)(unsigned long)from_user, bytes);
}

plat_size snbf_plat_copy_to_user(plat_u64 to_user, const void* from, plat_size bytes) {
  return copy_to_user((void __user*)(unsigned long)to_user, from, bytes);
}

struct plat_user_pin {
  size_t first_offset; /* of the buffer in its first page */
  size_t bytes;        /* that lie in pinned pages */
  unsigned long pages_pinned;
  int writable;
  struct page* pages[];
};

plat_user_pin* snbf_plat_user_pin(plat_u64 address, plat_size bytes, int writable) {
  const size_t first_offset = offset_in_page(address);
  const unsigned long pages_wanted = DIV_ROUND_UP(first_offset + bytes, PAGE_SIZE);
  struct plat_user_pin* pin;
  int pinned = 0;

  if (pages_wanted > INT_MAX || bytes > SIZE_MAX - PAGE_SIZE) return NULL;
  pin = kvmalloc(struct_size(pin, pages, pages_wanted), GFP_KERNEL | __GFP_NOWARN);
  if (!pin) return NULL;
  if (bytes > 0 && access_ok((const void __user*)(unsigned long)address, bytes))
    pinned = pin_user_pages_fast(address & PAGE_MASK, pages_wanted, writable ? FOLL_WRITE : 0,
                                 pin->pages);
  pin->first_offset = first_offset;
  pin->pages_pinned = max(pinned, 0);
  pin->writable = writable;
  pin->bytes = 0;
  if (pin->pages_pinned > 0)
    pin->bytes = min_t(size_t, bytes, pin->pages_pinned * PAGE_SIZE - first_offset);
  return pin;
}

plat_size snbf_plat_user_pinned_bytes(const plat_user_pin* pin) { return pin->bytes; }

/* The next stretch of [offset, offset + bytes) that lies in one page. */
static size_t pin_stretch(const struct plat_user_pin* pin, size_t offset, size_t bytes,
                          struct page** page, size_t* page_offset) {
  const size_t at = pin->first_offset + offset;

  *page = pin->pages[at >> PAGE_SHIFT];
  *page_offset = offset_in_page(at);
  return min_t(size_t, bytes, PAGE_SIZE - *page_offset);
}

void snbf_plat_user_pin_write(plat_user_pin* pin, plat_size offset, const void* from,
                              plat_size bytes) {
  while (bytes > 0) {
    struct page* page;
    size_t page_offset;
    const size_t step = pin_stretch(pin, offset, bytes, &page, &page_offset);

    memcpy_to_page(page, page_offset, from, step);
    offset += step;
    from += step;
    bytes -= step;
  }
}

void snbf_plat_user_pin_read(plat_user_pin* pin, plat_size offset, void* to, plat_size bytes) {
  while (bytes > 0) {
    struct page* page;
    size_t page_offset;
    const size_t step = pin_stretch(pin, offset, bytes, &page, &page_offset);

    memcpy_from_page(to, page, page_offset, step);
    offset += step;
    to += step;
    bytes -= step;
  }
}

void snbf_plat_user_unpin(plat_user_pin* pin) {
  unpin_user_pages_dirty_lock(pin->pages, pin->pages_pinned, pin->writable);
  kvfree(pin);
}
