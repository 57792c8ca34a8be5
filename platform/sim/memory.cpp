// Heap, virtually contiguous areas, pages, caches and pools.
#include "platform/memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "memory_state.h"

#if SNBF_SIM_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace snbf::sim {

namespace {

constexpr std::size_t kFence = 64;
constexpr std::size_t kQuarantineBytes = 8 << 20;
constexpr unsigned char kFreshFill = 0x5A;
constexpr unsigned char kFreedFill = 0x6B;
[[maybe_unused]] constexpr unsigned char kFenceFill = 0xFD;

constexpr const char* kKindNames[] = {"heap block", "virtual area", "page",  "cache object",
                                      "pool",       "cache",        "object"};

// Pages lie on page boundaries; all else as the process's heap has it.
std::size_t lead(int kind) { return kind == kPage ? 4096 : kFence; }

[[maybe_unused]] bool all_bytes(const char* at, std::size_t bytes, unsigned char value) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(at);
  if (bytes == 0) return true;
  return p[0] == value && memcmp(p, p + 1, bytes - 1) == 0;
}

void fence(const Block& block, bool close) {
  char* user = block.base + lead(block.kind);
#if SNBF_SIM_ASAN
  if (close) {
    __asan_poison_memory_region(block.base, lead(block.kind));
    __asan_poison_memory_region(user + block.bytes, kFence);
  } else {
    __asan_unpoison_memory_region(block.base, lead(block.kind) + block.bytes + kFence);
  }
#else
  if (!close) return;
  memset(user - kFence, kFenceFill, kFence);
  memset(user + block.bytes, kFenceFill, kFence);
#endif
}

void drop_oldest(Kernel& k, MemoryState& memory) {
  const void* user = memory.quarantine.front();
  memory.quarantine.pop_front();
  auto at = memory.freed.find(user);
  const Block block = at->second;
  memory.freed.erase(at);
  memory.quarantine_bytes -= block.bytes;
#if SNBF_SIM_ASAN
  __asan_unpoison_memory_region(block.base, lead(block.kind) + block.bytes + kFence);
  (void)k;
#else
  if (!all_bytes(static_cast<const char*>(user), block.bytes, kFreedFill)) {
    k.set_fatal("memory: a freed " + std::string(kKindNames[block.kind]) + " of " +
                std::to_string(block.bytes) + " bytes (" + block.what + ", #" +
                std::to_string(block.number) + ") was written to after its free");
  }
#endif
  free(block.base);
}

}  // namespace

MemoryState::~MemoryState() {
  auto drop = [](const Block& block) {
#if SNBF_SIM_ASAN
    __asan_unpoison_memory_region(block.base, lead(block.kind) + block.bytes + kFence);
#endif
    free(block.base);
  };
  for (auto& [user, block] : live) drop(block);
  for (auto& [user, block] : freed) drop(block);
  for (plat_pool* pool : pools) delete pool;
  for (plat_cache* cache : caches) delete cache;
}

void* Kernel::allocate(std::size_t bytes, int kind, const char* what) {
  const std::size_t before = lead(kind);
  const std::size_t total = (before + bytes + kFence + 4095) / 4096 * 4096;
  char* base = static_cast<char*>(kind == kPage ? aligned_alloc(4096, total)
                                                : malloc(before + bytes + kFence));
  if (base == nullptr) fatal("the test process itself is out of memory");
  char* user = base + before;
  Block block{base, bytes, kind, memory->next_number++, what, current->name, nullptr};
  memset(user, kFreshFill, bytes);
  fence(block, true);
  memory->live_bytes += bytes;
  memory->live.emplace(user, std::move(block));
  return user;
}

void Kernel::release(void* user, int kind, const char* call) {
  auto at = memory->live.find(user);
  if (at == memory->live.end()) {
    auto gone = memory->freed.find(user);
    if (gone != memory->freed.end()) {
      fatal("%s() of a %s of %zu bytes (%s, #%llu) that was freed before", call,
            kKindNames[gone->second.kind], gone->second.bytes, gone->second.what,
            static_cast<unsigned long long>(gone->second.number));
    }
    fatal("%s() of %p, which was never allocated", call, user);
  }
  if (at->second.kind != kind) {
    fatal("%s() of a %s (%s)", call, kKindNames[at->second.kind], at->second.what);
  }
  Block block = std::move(at->second);
  memory->live.erase(at);
  memory->live_bytes -= block.bytes;
  check_freed_range(user, block.bytes, call);
#if SNBF_SIM_ASAN
  fence(block, false);
#else
  char* area = static_cast<char*>(user);
  if (!all_bytes(area - kFence, kFence, kFenceFill) ||
      !all_bytes(area + block.bytes, kFence, kFenceFill)) {
    fatal("%s(): somebody wrote before or behind a %s of %zu bytes (%s, #%llu)", call,
          kKindNames[kind], block.bytes, block.what, static_cast<unsigned long long>(block.number));
  }
#endif
  memset(user, kFreedFill, block.bytes);
#if SNBF_SIM_ASAN
  __asan_poison_memory_region(user, block.bytes);
#endif
  memory->quarantine_bytes += block.bytes;
  memory->quarantine.push_back(user);
  memory->freed.emplace(user, std::move(block));
  while (memory->quarantine_bytes > kQuarantineBytes || memory->quarantine.size() > 20'000) {
    drop_oldest(*this, *memory);
    if (has_fatal) fatal("%s", fatal_text.c_str());
  }
}

// Something that others wait for, or hold, must not go.
void Kernel::check_freed_range(const void* begin, std::size_t bytes, const char* call) {
  const char* low = static_cast<const char*>(begin);
  const char* high = low + bytes;
  auto inside = [&](const void* p) {
    return static_cast<const char*>(p) >= low && static_cast<const char*>(p) < high;
  };
  for (Task* task : tasks) {
    if (task->state == Task::State::Blocked && inside(task->wait_object)) {
      fatal("%s() of memory in which task '%s' waits for %s", call, task->name, task->wait_what);
    }
    for (const SpinState* spin : task->spins) {
      if (inside(spin))
        fatal("%s() of memory with the spin lock '%s', which '%s' holds", call, spin->name,
              task->name);
    }
  }
}

bool Kernel::is_freed(const void* address) const {
  return memory->freed.find(address) != memory->freed.end();
}

void Kernel::memory_leftovers(std::string& text) const {
  std::vector<const Block*> blocks;
  for (const auto& [user, block] : memory->live) blocks.push_back(&block);
  std::sort(blocks.begin(), blocks.end(),
            [](const Block* a, const Block* b) { return a->number < b->number; });
  std::size_t shown = 0;
  for (const Block* block : blocks) {
    if (++shown > 20) {
      text += "  and " + std::to_string(blocks.size() - 20) + " blocks more\n";
      break;
    }
    text += "  " + std::string(kKindNames[block->kind]) + " of " + std::to_string(block->bytes) +
            " bytes (" + (block->cache != nullptr ? block->cache->name : std::string(block->what)) +
            ", #" + std::to_string(block->number) + ", by '" + block->task + "')\n";
  }
  for (const plat_pool* pool : memory->pools)
    text += "  pool over cache " + pool->cache->name + "\n";
  for (const plat_cache* cache : memory->caches) text += "  cache " + cache->name + "\n";
}

namespace {

// The door of every allocation: may it sleep here, and must it wait for writes first?
Kernel& enter_allocation(const char* call, plat_alloc_mode mode) {
  if (mode == PLAT_ALLOC_ATOMIC) return enter(call);
  Kernel& k = enter_sleeping(call);
  k.reclaim(mode);
  return k;
}

void* new_object(Kernel& k, plat_cache* cache) {
  void* object = k.allocate(cache->object_bytes, kObject, "object");
  k.memory->live.find(object)->second.cache = cache;
  ++cache->live;
  return object;
}

plat_pool* check_pool(Kernel& k, plat_pool* pool, const char* call) {
  if (k.memory->pools.count(pool) == 0) k.fatal("%s() on a pool that is not there", call);
  return pool;
}

void* pool_take(Kernel& k, plat_pool* pool) {
  const bool none = k.fault_memory(Fault::PoolAlloc) || k.memory_pressure;
  if (none) {
    if (pool->left == 0) return nullptr;
    --pool->left;
  }
  ++pool->live;
  return new_object(k, pool->cache);
}

}  // namespace

void Sim::set_memory_pressure(bool on) { kernel_->memory_pressure = on; }
void Sim::hold_heap(bool on) { kernel_->memory->heap_is_held = on; }
u64 Sim::heap_bytes() const { return kernel_->memory->live_bytes; }
std::size_t Sim::live_blocks() const { return kernel_->memory->live.size(); }

}  // namespace snbf::sim

using namespace snbf::sim;

extern "C" {

void* snbf_plat_heap_alloc(plat_size bytes, plat_alloc_mode mode) {
  Kernel& k = enter_allocation("heap_alloc", mode);
  while (k.memory->heap_is_held && mode != PLAT_ALLOC_ATOMIC) k.sim.sleep_us(1000);
  if (k.fault_memory(Fault::Heap)) return nullptr;
  // As kmalloc: what is larger is never to be had.
  if (bytes > (4u << 20)) return nullptr;
  return k.allocate(bytes, kHeap, "heap_alloc");
}

void snbf_plat_heap_free(void* block) {
  Kernel& k = enter("heap_free");
  if (block != nullptr) k.release(block, kHeap, "heap_free");
}

void* snbf_plat_virt_alloc(plat_size bytes) {
  Kernel& k = enter_allocation("virt_alloc", PLAT_ALLOC_NORMAL);
  if (k.fault_memory(Fault::Virt) || bytes == 0 || bytes > (8ull << 30)) return nullptr;
  void* area = k.allocate(bytes, kVirt, "virt_alloc");
  memset(area, 0, bytes);
  return area;
}

void snbf_plat_virt_free(void* area) {
  Kernel& k = enter_sleeping("virt_free");
  if (area != nullptr) k.release(area, kVirt, "virt_free");
}

void* snbf_plat_page_alloc(plat_alloc_mode mode) {
  Kernel& k = enter_allocation("page_alloc", mode);
  if (k.fault_memory(Fault::Page)) return nullptr;
  return k.allocate(4096, kPage, "page_alloc");
}

void snbf_plat_page_free(void* page) {
  Kernel& k = enter("page_free");
  if (page != nullptr) k.release(page, kPage, "page_free");
}

plat_cache* snbf_plat_cache_create(const char* name, plat_size object_bytes) {
  Kernel& k = enter_allocation("cache_create", PLAT_ALLOC_NORMAL);
  if (k.fault_memory(Fault::CacheCreate)) return nullptr;
  for (const plat_cache* other : k.memory->caches) {
    if (other->name == name) k.fatal("cache_create() of '%s', which exists", name);
  }
  return *k.memory->caches.insert(new plat_cache{name, object_bytes, 0, 0}).first;
}

void snbf_plat_cache_destroy(plat_cache* cache) {
  Kernel& k = enter_sleeping("cache_destroy");
  if (k.memory->caches.count(cache) == 0) k.fatal("cache_destroy() of a cache that is not there");
  if (cache->live > 0) {
    k.fatal("cache_destroy() of '%s' with %llu objects alive", cache->name.c_str(),
            static_cast<unsigned long long>(cache->live));
  }
  if (cache->pools > 0) k.fatal("cache_destroy() of '%s' with a pool over it", cache->name.c_str());
  k.memory->caches.erase(cache);
  delete cache;
}

plat_pool* snbf_plat_pool_create(int reserve, plat_cache* cache) {
  Kernel& k = enter_allocation("pool_create", PLAT_ALLOC_NORMAL);
  if (k.memory->caches.count(cache) == 0) k.fatal("pool_create() over a cache that is not there");
  if (k.fault_memory(Fault::PoolCreate)) return nullptr;
  ++cache->pools;
  return *k.memory->pools.insert(new plat_pool{cache, reserve, reserve, 0, {}}).first;
}

void snbf_plat_pool_destroy(plat_pool* pool) {
  Kernel& k = enter_sleeping("pool_destroy");
  check_pool(k, pool, "pool_destroy");
  if (pool->live > 0) {
    k.fatal("pool_destroy() over cache '%s' with %llu objects not given back",
            pool->cache->name.c_str(), static_cast<unsigned long long>(pool->live));
  }
  --pool->cache->pools;
  k.memory->pools.erase(pool);
  delete pool;
}

void* snbf_plat_pool_alloc(plat_pool* pool, plat_alloc_mode mode) {
  Kernel& k = enter_allocation("pool_alloc", mode);
  check_pool(k, pool, "pool_alloc");
  for (;;) {
    void* object = pool_take(k, pool);
    if (object != nullptr || mode == PLAT_ALLOC_ATOMIC) return object;
    k.sleep_in(pool->waiters, "an object of the pool", pool, pool->cache->name.c_str());
  }
}

void* snbf_plat_pool_try_alloc(plat_pool* pool, plat_alloc_mode mode) {
  Kernel& k = enter_allocation("pool_try_alloc", mode);
  return pool_take(k, check_pool(k, pool, "pool_try_alloc"));
}

void snbf_plat_pool_free(plat_pool* pool, void* object) {
  Kernel& k = enter("pool_free");
  check_pool(k, pool, "pool_free");
  auto at = k.memory->live.find(object);
  if (at != k.memory->live.end() && at->second.kind == kObject && at->second.cache != pool->cache) {
    k.fatal("pool_free() to a pool over '%s' of an object of '%s'", pool->cache->name.c_str(),
            at->second.cache->name.c_str());
  }
  k.release(object, kObject, "pool_free");
  --pool->live;
  --pool->cache->live;
  if (pool->left < pool->reserve) ++pool->left;
  k.wake_one(pool->waiters);
}
}
