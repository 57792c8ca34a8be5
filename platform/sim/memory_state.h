// Tracked memory. A freed block is filled and kept for a while, so that its use is noticed; what
// lives at the end is reported with who asked for it.
#pragma once

#include <deque>
#include <string>
#include <unordered_map>

#include "kernel.h"

struct plat_cache {
  std::string name;
  std::size_t object_bytes;
  snbf::sim::u64 live;
  snbf::sim::u64 pools;
};

struct plat_pool {
  plat_cache* cache;
  int reserve;
  int left;  // of the reserve
  snbf::sim::u64 live;
  WaitList waiters;
};

namespace snbf::sim {

struct Block {
  char* base;  // what the process's own heap answered
  std::size_t bytes;
  int kind;
  u64 number;
  const char* what;
  std::string task;
  plat_cache* cache;
};

struct MemoryState {
  std::unordered_map<const void*, Block> live;
  std::unordered_map<const void*, Block> freed;
  std::deque<const void*> quarantine;
  std::size_t quarantine_bytes = 0;
  u64 next_number = 1;
  u64 live_bytes = 0;
  bool heap_is_held = false;
  std::set<plat_cache*> caches;
  std::set<plat_pool*> pools;

  ~MemoryState();
};

}  // namespace snbf::sim
