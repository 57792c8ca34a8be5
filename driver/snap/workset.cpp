// SPDX-License-Identifier: GPL-2.0-only
#include "snap/workset.h"

#include "core/memory.h"

namespace snbf {

namespace {

constexpr plat_bio_hooks kReadHooks = {snbf_end_cow_read_sync, nullptr};

bool allocate(WorkSet& work) {
  work.bounce = static_cast<u8*>(snbf_plat_page_alloc(PLAT_ALLOC_NOIO));
  work.direct = snbf_plat_direct_batch_make(kPiecesAtOnce, kGroupPages);
  if (work.bounce == nullptr || work.direct == nullptr) return false;
  for (u32 i = 0; i < kGroupPages; ++i) {
    work.pages[i] = snbf_plat_page_alloc(PLAT_ALLOC_NOIO);
    work.bios[i] = snbf_plat_bio_alloc(PLAT_ALLOC_NOIO);
    if (work.pages[i] == nullptr || work.bios[i] == nullptr) return false;
  }
  return true;
}

}  // namespace

WorkSet* make_work_set() {
  // Zero-filled memory.
  auto* work = static_cast<WorkSet*>(snbf_plat_virt_alloc(sizeof(WorkSet)));
  if (work == nullptr) return nullptr;
  work->chunks.init();
  if (allocate(*work)) return work;
  free_work_set(work);
  return nullptr;
}

void free_work_set(WorkSet* work) {
  for (plat_bio* bio : work->bios) {
    if (bio != nullptr) snbf_plat_bio_put(bio);
  }
  for (void* page : work->pages) snbf_plat_page_free(page);
  snbf_plat_direct_batch_free(work->direct);
  snbf_plat_page_free(work->bounce);
  snbf_plat_virt_free(work);
}

bool WorkSet::read_all(u32 count, plat_bdev* bdev) {
  if (count == 0) return true;
  outstanding.store(static_cast<int>(count));
  snbf_plat_completion_init(&all_done);
  for (u32 i = 0; i < count; ++i) snbf_plat_bio_set_hooks(bios[i], &kReadHooks, this);
  snbf_plat_bio_submit_all(bios, static_cast<int>(count), bdev);
  snbf_plat_completion_wait(&all_done);
  for (u32 i = 0; i < count; ++i) {
    if (!snbf_plat_bio_is_uptodate(bios[i])) return false;
  }
  return true;
}

}  // namespace snbf

int snbf_end_cow_read_sync(plat_bio* bio, plat_u32 /*bytes_done*/, int /*error*/) {
  if (snbf_plat_bio_bytes_left(bio) > 0) return 1;
  auto* work = static_cast<snbf::WorkSet*>(snbf_plat_bio_context(bio));
  // Behind a completion the set may be freed, which behind a bare wake-up it may not.
  if (work->outstanding.fetch_sub(1) == 1) snbf_plat_complete(&work->all_done);
  return 0;
}
