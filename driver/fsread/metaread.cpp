// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/metaread.h"

#include "base/errno.h"
#include "base/string.h"
#include "platform/memory.h"
#include "platform/sync.h"

namespace snbf {

namespace {

constexpr u32 kInFlightMax = 32;

// One page on its way.
struct Slot {
  plat_bio* bio;
  u8* page;
  plat_completion done;
  u8* to;    // null: nothing is in flight
  u32 skip;  // bytes of the page in front of what is wanted
  u32 bytes;
};

// Signals the slot whose page has come. Whether it came whole is judged by the waiter.
int slot_complete(plat_bio* bio, plat_u32 /*bytes_done*/, int /*error*/) {
  if (snbf_plat_bio_bytes_left(bio) > 0) return 1;
  snbf_plat_complete(static_cast<plat_completion*>(snbf_plat_bio_context(bio)));
  return 0;
}

constexpr plat_bio_hooks kSlotHooks = {slot_complete, nullptr};

bool make_slot(Slot& slot) {
  slot.bio = snbf_plat_bio_alloc(PLAT_ALLOC_NORMAL);
  slot.page = static_cast<u8*>(snbf_plat_page_alloc(PLAT_ALLOC_NORMAL));
  slot.to = nullptr;
  return slot.bio != nullptr && slot.page != nullptr;
}

void drop_slot(Slot& slot) {
  if (slot.bio != nullptr) snbf_plat_bio_put(slot.bio);
  if (slot.page != nullptr) snbf_plat_page_free(slot.page);
}

// Waits for what is in flight there. False: it could not be read.
bool collect(Slot& slot) {
  if (slot.to == nullptr) return true;
  snbf_plat_completion_wait(&slot.done);
  const bool is_whole = snbf_plat_bio_is_uptodate(slot.bio) != 0;
  if (is_whole) mem_copy(slot.to, slot.page + slot.skip, slot.bytes);
  slot.to = nullptr;
  return is_whole;
}

void send(Slot& slot, plat_bdev* bdev, u64 page_at, u32 page_bytes, u8* to, u32 skip, u32 bytes) {
  slot.to = to;
  slot.skip = skip;
  slot.bytes = bytes;
  snbf_plat_completion_init(&slot.done);
  snbf_plat_bio_set_page(slot.bio, 0, page_at / kSectorBytes, slot.page, page_bytes);
  snbf_plat_bio_set_hooks(slot.bio, &kSlotHooks, &slot.done);
  snbf_plat_bio_submit(slot.bio, bdev);
}

// Pages in turn over the slots; a slot is used again once its page has come.
bool read_through(Slot* slots, u32 slot_count, plat_bdev* bdev, u8* to, u64 offset, u64 bytes) {
  const u64 device_bytes = snbf_plat_bdev_bytes(bdev);
  bool ok = true;
  for (u32 n = 0; bytes > 0 && ok; n = (n + 1) % slot_count) {
    const u64 page_at = offset & ~u64{kPageBytes - 1};
    const u32 skip = static_cast<u32>(offset - page_at);
    const u64 in_device = device_bytes - page_at;
    const u32 page_bytes = in_device < kPageBytes ? static_cast<u32>(in_device) : kPageBytes;
    const u32 wanted = bytes < page_bytes - skip ? static_cast<u32>(bytes) : page_bytes - skip;
    ok = collect(slots[n]);
    if (!ok) break;
    send(slots[n], bdev, page_at, page_bytes, to, skip, wanted);
    to += wanted;
    offset += wanted;
    bytes -= wanted;
  }
  for (u32 n = 0; n < slot_count; ++n) {
    if (!collect(slots[n])) ok = false;
  }
  return ok;
}

}  // namespace

int read_metadata(plat_bdev* bdev, void* to, u64 offset, u64 bytes) {
  const u64 device_bytes = snbf_plat_bdev_bytes(bdev);
  if (bytes == 0) return 0;
  if (offset > device_bytes || bytes > device_bytes - offset) return -EIO;
  const u64 pages = (offset % kPageBytes + bytes + kPageBytes - 1) / kPageBytes;
  const u32 slot_count = pages < kInFlightMax ? static_cast<u32>(pages) : kInFlightMax;
  Slot* slots =
      static_cast<Slot*>(snbf_plat_heap_alloc(slot_count * sizeof(Slot), PLAT_ALLOC_NORMAL));
  if (slots == nullptr) return -ENOMEM;
  u32 made = 0;
  bool is_equipped = true;
  while (made < slot_count && is_equipped) is_equipped = make_slot(slots[made++]);
  int rc = -ENOMEM;
  if (is_equipped) {
    rc = read_through(slots, slot_count, bdev, static_cast<u8*>(to), offset, bytes) ? 0 : -EIO;
  }
  while (made > 0) drop_slot(slots[--made]);
  snbf_plat_heap_free(slots);
  return rc;
}

}  // namespace snbf
