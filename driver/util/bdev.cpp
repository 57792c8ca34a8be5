// SPDX-License-Identifier: GPL-2.0-only
#include "util/bdev.h"

#include "base/assert.h"
#include "base/errno.h"
#include "base/scope_exit.h"
#include "base/string.h"
#include "core/log.h"
#include "platform/memory.h"
#include "platform/sync.h"

using namespace snbf;

namespace {

// The error is not looked at: the reader judges by whether the page is up to date.
int snbf_bio_complete(plat_bio* bio, plat_u32 /*bytes_done*/, int /*error*/) {
  if (snbf_plat_bio_bytes_left(bio) > 0) return 1;
  snbf_plat_complete(static_cast<plat_completion*>(snbf_plat_bio_context(bio)));
  return 0;
}

constexpr plat_bio_hooks kReadHooks = {snbf_bio_complete, nullptr};

// Where a block lies on a device: it reads nothing but whole blocks of its own, and some drivers of
// devices answer a smaller request with memory that is overwritten.
struct Place {
  u64 sector;
  u32 bytes;
  u32 skip;  // in front of the block
};

Place place_of(plat_bdev* bdev, s64 block, int block_bytes) {
  const u32 unit = snbf_plat_bdev_block_bytes(bdev);
  const u64 sector = static_cast<u64>(block * block_bytes / static_cast<s64>(kSectorBytes));
  const u32 skip = static_cast<u32>(sector % (unit / kSectorBytes)) * kSectorBytes;
  const u32 reach = skip + static_cast<u32>(block_bytes);
  return {sector - skip / kSectorBytes, (reach + unit - 1) / unit * unit, skip};
}

bool read_page(plat_bdev* bdev, plat_bio* bio, u64 sector, void* page, u32 bytes) {
  plat_completion done = {};
  snbf_plat_completion_init(&done);
  snbf_plat_bio_set_page(bio, 0, sector, page, bytes);
  snbf_plat_bio_set_hooks(bio, &kReadHooks, &done);
  snbf_plat_bio_submit(bio, bdev);
  snbf_plat_completion_wait(&done);
  return snbf_plat_bio_is_uptodate(bio) != 0;
}

}  // namespace

plat_bdev* snbf_open_bdev(plat_devt device, int mode, plat_open_kind kind, void* holder) {
  plat_bdev* bdev = nullptr;
  return snbf_plat_bdev_open(device, mode, kind, holder, &bdev) == 0 ? bdev : nullptr;
}

int snbf_close_bdev(plat_bdev* bdev, plat_open_kind kind, int mode, void* holder) {
  return snbf_plat_bdev_close(bdev, kind, mode, holder);
}

int snbf_is_mounted(plat_bdev* bdev) { return snbf_plat_bdev_is_mounted(bdev); }

int snbf_bread(plat_bdev* bdev, void* to, int block_bytes, s64 first, int count) {
  constexpr const char* kOrigin = "snbf_bread";
  SNBF_ASSERT(bdev != nullptr);
  SNBF_ASSERT(to != nullptr);
  if (static_cast<u32>(block_bytes) > kPageBytes) {
    snbf_log(kLogError, "%s(): Block size cannot be larger than page size (%d)", kOrigin,
             static_cast<int>(kPageBytes));
    return -EINVAL;
  }
  void* page = snbf_plat_page_alloc(PLAT_ALLOC_NORMAL);
  if (page == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  ScopeExit free_page{[&] { snbf_plat_page_free(page); }};
  if (count <= 0) return 0;
  plat_bio* bio = snbf_plat_bio_alloc(PLAT_ALLOC_NORMAL);
  if (bio == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  ScopeExit put_bio{[&] { snbf_plat_bio_put(bio); }};
  u8* into = static_cast<u8*>(to);
  for (s64 block = first; block < first + count; ++block) {
    const Place place = place_of(bdev, block, block_bytes);
    const bool fits = place.bytes <= kPageBytes;
    if (!fits || !read_page(bdev, bio, place.sector, page, place.bytes)) {
      snbf_log(kLogError, "%s(): Failed to read %d-byte block #%lld", kOrigin, block_bytes,
               static_cast<long long>(block));
      return -EIO;
    }
    mem_copy(into, static_cast<const u8*>(page) + place.skip, static_cast<size_t>(block_bytes));
    into += block_bytes;
  }
  return 0;
}
