// SPDX-License-Identifier: GPL-2.0-only
// Records from a slab cache with a reserve, for the request path: it must get on while memory is
// short.
//
// Two callers that each took several records, waiting, could hold the whole reserve between them
// and wait for each other for ever. So a request's records are taken together: first without
// waiting; if that falls short, all are given back and taken again, waiting, by one caller at a
// time. What that caller waits for is then held by requests on their way, which end without it. One
// request's records must fit into the reserve.
#pragma once

#include "block/kslock.h"
#include "core/memory.h"

namespace snbf {

class RecordPool {
 public:
  bool exists() const { return pool_ != nullptr; }
  // 0 or -ENOMEM. May sleep; nobody else uses the pool yet.
  int create(const char* cache_name, size_t record_bytes, int reserve);
  // Every record is back. Allowed when it does not exist.
  void destroy();

  // One record, contents undefined; null only with Atomic. The caller holds no other record of this
  // pool.
  void* take(AllocMode mode) { return snbf_plat_pool_alloc(pool_, mode); }
  // Any context.
  void give_back(void* record) { snbf_plat_pool_free(pool_, record); }

  // Hands `count` records to `keep`, one by one. False with Atomic and a reserve that falls short;
  // `drop` has then given back those that `keep` got. `drop` may also be called before the second
  // try.
  template <typename Keep, typename Drop>
  bool take_all(u64 count, AllocMode mode, Keep keep, Drop drop) {
    for (u64 taken = 0; taken < count; ++taken) {
      void* record = snbf_plat_pool_try_alloc(pool_, mode);
      if (record == nullptr) {
        drop();
        return mode != PLAT_ALLOC_ATOMIC && take_all_in_turn(count, mode, keep);
      }
      keep(record);
    }
    return true;
  }

 private:
  template <typename Keep>
  bool take_all_in_turn(u64 count, AllocMode mode, Keep keep) {
    KsMutexGuard turn{turn_};
    for (u64 taken = 0; taken < count; ++taken) keep(snbf_plat_pool_alloc(pool_, mode));
    return true;
  }

  plat_cache* cache_ = nullptr;
  plat_pool* pool_ = nullptr;
  KsMutex turn_;
};

}  // namespace snbf
