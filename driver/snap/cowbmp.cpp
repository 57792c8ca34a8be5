// SPDX-License-Identifier: GPL-2.0-only
#include "snap/cowbmp.h"

#include <new>

#include "base/assert.h"
#include "base/errno.h"
#include "base/scope_exit.h"
#include "core/log.h"
#include "platform/point.h"

namespace snbf {

namespace {

constexpr u32 kPageShift = 15;  // log2 of the bits of a page
constexpr u32 kPageBits = 1u << kPageShift;
constexpr int kMaxPages = 0x7FFFFFFF;

struct BitPlace {
  int page;
  u32 byte;  // in the page
  u8 mask;
};

constexpr BitPlace place_of(int bit) {
  const u32 in_page = static_cast<u32>(bit) & (kPageBits - 1);
  return {bit >> kPageShift, in_page >> 3, static_cast<u8>(1u << (in_page & 7))};
}
static_assert(place_of(32768).page == 1 && place_of(32768).byte == 0 && place_of(32768).mask == 1);
static_assert(place_of(32767).page == 0 && place_of(32767).byte == 4095 &&
              place_of(32767).mask == 0x80);

// Of nothing: no page, as the formula gives with signed numbers.
u64 pages_for(u64 nbits) { return nbits == 0 ? 0 : ((nbits - 1) >> kPageShift) + 1; }
u64 bytes_for(u64 nbits) { return ((nbits - 1) >> 3) + 1; }
int bytes_of_slot(u64 total_bytes, int slot) {
  const u64 left = total_bytes - static_cast<u64>(slot) * kPageBytes;
  return static_cast<int>(left < kPageBytes ? left : kPageBytes);
}

// A table of nothing, or of more slots than a slot number can count, is an allocation that fails.
u8** alloc_slots(u64 npages) {
  if (npages == 0 || npages > kMaxPages) return nullptr;
  return static_cast<u8**>(snbf_plat_virt_alloc(npages * sizeof(u8*)));
}

void free_pages(CowBitmap& bitmap) REQUIRES(bitmap.lock) {
  if (bitmap.pages == nullptr) return;
  for (int slot = 0; slot < bitmap.npages; ++slot) snbf_plat_heap_free(bitmap.pages[slot]);
  snbf_plat_virt_free(bitmap.pages);
  bitmap.pages = nullptr;
}

bool is_zero(const u8* bytes, int count) {
  for (int i = 0; i < count; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

// Setters of one page may run side by side under the read side of the lock. Answers whether the bit
// was clear, and in `now` the byte as it is with the bit.
bool set_in_page(u8* page, const BitPlace& place, u8* now) {
  const u8 before = __atomic_fetch_or(&page[place.byte], place.mask, __ATOMIC_SEQ_CST);
  *now = __atomic_load_n(&page[place.byte], __ATOMIC_RELAXED);
  return (before & place.mask) == 0;
}

int set_and_mirror(u8* page, int bit, snbf_file* file) {
  u8 now = 0;
  if (!set_in_page(page, place_of(bit), &now)) return 0;
  if (snbf_fwrite(file, static_cast<u64>(bit) >> 3, &now, 1) == 1) return 0;
  snbf_log(kLogError, "%s(): Failed to update changed byte in file.", "snbf_cowbmp_set_bit");
  return -EIO;
}

// The page of a bit, made if need be; null without memory.
u8* page_for(CowBitmap& bitmap, u32 bit, AllocMode mode) {
  u8** slot = &bitmap.pages[place_of(static_cast<int>(bit)).page];
  {
    KsReadGuard hold{bitmap.lock};
    if (*slot != nullptr) return *slot;
  }
  u8* fresh = static_cast<u8*>(kzalloc(kPageBytes, mode));
  if (fresh == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", "snbf_cowbmp_set_bit");
    return nullptr;
  }
  KsWriteGuard hold{bitmap.lock};
  if (*slot == nullptr) {
    __atomic_store_n(slot, fresh, __ATOMIC_RELEASE);
  } else {
    snbf_plat_heap_free(fresh);
  }
  return *slot;
}

// From the first to the last byte of one page that has changed and is not in the file yet. What
// lies between them is in the file already: written again, in the same call, it costs less than a
// call for each.
struct ChangedBytes {
  const u8* page = nullptr;
  u64 first = 0;  // in the file
  u64 last = 0;

  bool take(const u8* of_page, u64 byte) {
    if (page != of_page) return false;
    if (byte < first) first = byte;
    if (byte > last) last = byte;
    return true;
  }
  int write(snbf_file* file) const {
    if (page == nullptr) return 0;
    const int count = static_cast<int>(last - first + 1);
    if (snbf_fwrite(file, first, page + first % kPageBytes, count) == count) return 0;
    snbf_log(kLogError, "%s(): Failed to update changed byte in file.", "snbf_cowbmp_set_bit");
    return -EIO;
  }
};

// Reads the slots of an open file. A slot of zeros stays empty and its buffer serves the next.
int load_slots(CowBitmap& bitmap, snbf_file* file, const char* path, u64 total_bytes)
    REQUIRES(bitmap.lock) {
  constexpr const char* kOrigin = "snbf_cowbmp_load";
  u8* buffer = nullptr;
  ScopeExit free_buffer{[&] { snbf_plat_heap_free(buffer); }};
  for (int slot = 0; slot < bitmap.npages; ++slot) {
    if (buffer == nullptr) {
      buffer = static_cast<u8*>(kzalloc(kPageBytes, PLAT_ALLOC_NORMAL));
      if (buffer == nullptr) {
        snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
        return -ENOMEM;
      }
    }
    const int bytes = bytes_of_slot(total_bytes, slot);
    const int rc = snbf_fread(file, static_cast<u64>(slot) * kPageBytes, buffer, bytes);
    if (rc != bytes) {
      snbf_log(kLogError, "%s(): Failed to read %d bytes from %s: rc=%d", kOrigin, bytes, path, rc);
      return -EIO;
    }
    if (is_zero(buffer, bytes)) continue;
    bitmap.pages[slot] = buffer;
    buffer = nullptr;
  }
  return 0;
}

int load_file(CowBitmap& bitmap, snbf_file* file, const char* path) REQUIRES(bitmap.lock) {
  free_pages(bitmap);
  const u64 total_bytes = snbf_plat_file_size(file->filp);
  const u64 npages = total_bytes == 0 ? 0 : ((total_bytes - 1) / kPageBytes) + 1;
  bitmap.pages = alloc_slots(npages);
  if (bitmap.pages == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", "snbf_cowbmp_load");
    return -ENOMEM;
  }
  bitmap.nbits = total_bytes * 8;
  bitmap.npages = static_cast<int>(npages);
  const int rc = load_slots(bitmap, file, path, total_bytes);
  if (rc != 0) free_pages(bitmap);
  return rc;
}

int save_piece(snbf_file* file, const char* path, u64 position, const u8* bytes, int count) {
  const int rc = snbf_fwrite(file, position, bytes, count);
  if (rc == count) return 0;
  snbf_log(kLogError, "%s(): Failed to write %d bytes into %s: rc=%d", "snbf_cowbmp_save", count,
           path, rc);
  return -EIO;
}

int save_slots(const CowBitmap& bitmap, snbf_file* file, const char* path)
    REQUIRES_SHARED(bitmap.lock) {
  const u64 total_bytes = bytes_for(bitmap.nbits);
  // The last byte first: it gives the file its length, whatever slots are empty.
  const u8 zero = 0;
  if (int rc = save_piece(file, path, total_bytes - 1, &zero, 1); rc != 0) return rc;
  for (int slot = 0; slot < bitmap.npages; ++slot) {
    const u8* page = bitmap.pages[slot];
    if (page == nullptr) continue;
    const u64 position = static_cast<u64>(slot) * kPageBytes;
    if (int rc = save_piece(file, path, position, page, bytes_of_slot(total_bytes, slot));
        rc != 0) {
      return rc;
    }
  }
  return 0;
}

bool is_inside(const CowBitmap& bitmap, int bit) {
  return bit >= 0 && static_cast<u64>(bit) < bitmap.nbits;
}

bool is_settable(const CowBitmap& bitmap, int bit) {
  constexpr const char* kOrigin = "snbf_cowbmp_set_bit";
  if (bitmap.pages == nullptr) {
    snbf_log(kLogError, "%s(): Uninitialized COW bitmap.", kOrigin);
    return false;
  }
  if (is_inside(bitmap, bit)) return true;
  snbf_log(kLogError, "%s(): Bit %d lies outside the COW bitmap of %lld bits.", kOrigin, bit,
           static_cast<long long>(bitmap.nbits));
  return false;
}

}  // namespace

}  // namespace snbf

using namespace snbf;

int snbf_cowbmp_init(CowBitmap* bitmap, u64 chunk_count) {
  constexpr const char* kOrigin = "snbf_cowbmp_init";
  SNBF_ASSERT(bitmap != nullptr);
  snbf_log(2, "%s(): Allocating COW bitmap for %lld chunks", kOrigin,
           static_cast<long long>(chunk_count));
  bitmap->lock.init();
  const u64 npages = pages_for(chunk_count);
  u8** pages = alloc_slots(npages);
  if (pages == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  bitmap->nbits = chunk_count;
  bitmap->npages = static_cast<int>(npages);
  bitmap->pages = pages;
  return 0;
}

bool snbf_cowbmp_is_set(const CowBitmap* bitmap, u64 bit) {
  // As the locked test answers for a bitmap that is not there.
  if (bitmap->pages == nullptr) return true;
  if (bit >= bitmap->nbits) return false;
  SNBF_PLAT_POINT();
  const BitPlace place = place_of(static_cast<int>(bit));
  const u8* page = __atomic_load_n(&bitmap->pages[place.page], __ATOMIC_ACQUIRE);
  if (page == nullptr) return false;
  return (__atomic_load_n(&page[place.byte], __ATOMIC_ACQUIRE) & place.mask) != 0;
}

int snbf_cowbmp_test_bit(CowBitmap* bitmap, int bit) {
  SNBF_ASSERT(bitmap != nullptr);
  if (bitmap->pages == nullptr) {
    snbf_log(kLogError, "%s(): Uninitialized COW bitmap.", "snbf_cowbmp_test_bit");
    return -EINVAL;
  }
  KsReadGuard hold{bitmap->lock};
  // A loaded file may be shorter than the volume asks for: what it does not show was not copied.
  if (!is_inside(*bitmap, bit)) return 0;
  const BitPlace place = place_of(bit);
  const u8* page = bitmap->pages[place.page];
  if (page == nullptr) return 0;
  return (__atomic_load_n(&page[place.byte], __ATOMIC_ACQUIRE) & place.mask) != 0 ? 1 : 0;
}

int snbf_cowbmp_set_bit(CowBitmap* bitmap, int bit, AllocMode mode, snbf_file* file) {
  constexpr const char* kOrigin = "snbf_cowbmp_set_bit";
  SNBF_ASSERT(bitmap != nullptr);
  if (!is_settable(*bitmap, bit)) return -EINVAL;
  u8** slot = &bitmap->pages[place_of(bit).page];
  {
    KsReadGuard hold{bitmap->lock};
    if (*slot != nullptr) {
      if (file != nullptr) return set_and_mirror(*slot, bit, file);
      u8 now = 0;
      set_in_page(*slot, place_of(bit), &now);
      return 0;
    }
  }
  u8* fresh = static_cast<u8*>(kzalloc(kPageBytes, mode));
  if (fresh == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  KsWriteGuard hold{bitmap->lock};
  if (*slot == nullptr) {
    __atomic_store_n(slot, fresh, __ATOMIC_RELEASE);
  } else {
    snbf_plat_heap_free(fresh);  // another caller was faster
  }
  // Kept: on a page's first bit the file is written without asking whether one was given; its
  // writer then says so.
  return set_and_mirror(*slot, bit, file);
}

int snbf_cowbmp_set_bits(CowBitmap* bitmap, const u32* bits, u32 count, AllocMode mode,
                         snbf_file* file) {
  SNBF_ASSERT(bitmap != nullptr);
  ChangedBytes changed;
  for (u32 i = 0; i < count; ++i) {
    if (!is_settable(*bitmap, static_cast<int>(bits[i]))) return -EINVAL;
    u8* page = page_for(*bitmap, bits[i], mode);
    if (page == nullptr) return -ENOMEM;
    u8 now = 0;
    if (!set_in_page(page, place_of(static_cast<int>(bits[i])), &now)) continue;
    const u64 byte = bits[i] >> 3;
    if (changed.take(page, byte)) continue;
    if (int rc = changed.write(file); rc != 0) return rc;
    changed = {page, byte, byte};
  }
  return changed.write(file);
}

int snbf_cowbmp_save(CowBitmap* bitmap, const char* path) {
  constexpr const char* kOrigin = "snbf_cowbmp_save";
  snbf_log(2, "%s(): Saving COW bitmap into %s", kOrigin, path != nullptr ? path : "(null)");
  if (path == nullptr || path[0] == '\0' || bitmap == nullptr || bitmap->pages == nullptr) {
    snbf_log(kLogError, "%s(): Internal error: invalid params.", kOrigin);
    return -EINVAL;
  }
  KsReadGuard hold{bitmap->lock};
  snbf_file* file = snbf_fopen(path, PLAT_O_WRONLY | PLAT_O_CREAT | PLAT_O_TRUNC, 0600);
  if (file == nullptr) return -EIO;
  const int rc = save_slots(*bitmap, file, path);
  hold.unlock();
  snbf_fclose(file);
  return rc;
}

int snbf_cowbmp_load(CowBitmap* bitmap, const char* path) {
  constexpr const char* kOrigin = "snbf_cowbmp_load";
  if (path == nullptr || path[0] == '\0' || bitmap == nullptr) {
    snbf_log(kLogError, "%s(): Internal error: invalid params.", kOrigin);
    return -EINVAL;
  }
  snbf_log(2, "%s(): Loading COW bitmap from %s", kOrigin, path);
  // Nobody uses a bitmap that is not initialised, nor its lock.
  if (bitmap->pages == nullptr) bitmap->lock.init();
  KsWriteGuard hold{bitmap->lock};
  snbf_file* file = snbf_fopen(path, PLAT_O_RDONLY, 0600);
  if (file == nullptr) return -EIO;
  const int rc = load_file(*bitmap, file, path);
  hold.unlock();
  snbf_fclose(file);
  return rc;
}

int snbf_cowbmp_destroy(CowBitmap* bitmap) {
  SNBF_ASSERT(bitmap != nullptr);
  if (bitmap->pages != nullptr) {
    KsWriteGuard hold{bitmap->lock};
    free_pages(*bitmap);
  }
  ::new (bitmap) CowBitmap{};
  return 0;
}
