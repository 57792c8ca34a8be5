// SPDX-License-Identifier: GPL-2.0-only
#include "util/pool.h"

#include "base/errno.h"

namespace snbf {

int RecordPool::create(const char* cache_name, size_t record_bytes, int reserve) {
  turn_.init();
  cache_ = snbf_plat_cache_create(cache_name, record_bytes);
  if (cache_ == nullptr) return -ENOMEM;
  pool_ = snbf_plat_pool_create(reserve, cache_);
  if (pool_ == nullptr) {
    destroy();
    return -ENOMEM;
  }
  return 0;
}

void RecordPool::destroy() {
  if (pool_ != nullptr) snbf_plat_pool_destroy(pool_);
  if (cache_ != nullptr) snbf_plat_cache_destroy(cache_);
  pool_ = nullptr;
  cache_ = nullptr;
}

}  // namespace snbf
