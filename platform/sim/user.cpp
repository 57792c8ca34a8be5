// The memory of a user process, and pinning it.
#include <algorithm>
#include <cstring>

#include "kernel.h"
#include "platform/memory.h"

struct plat_user_pin {
  snbf::sim::u64 address;
  snbf::sim::u64 bytes;
  bool writable;
};

namespace snbf::sim {

namespace {

constexpr u64 kUserEnd = 0x7FFF'FFFF'F000ull;
constexpr u64 kPageBytes = 4096;

}  // namespace

Kernel::UserRegion* Kernel::user_region(u64 address, u64* offset) {
  auto at = user.upper_bound(address);
  if (at == user.begin()) return nullptr;
  --at;
  if (address - at->first >= at->second.data.size()) return nullptr;
  *offset = address - at->first;
  return &at->second;
}

u64 Kernel::user_accessible(u64 address, u64 bytes, bool write, bool may_fault_in) {
  u64 offset = 0;
  UserRegion* region = user_region(address, &offset);
  if (region == nullptr || (write && region->read_only)) return 0;
  if (region->untouched) {
    if (!may_fault_in) return 0;
    might_sleep("a copy to or from user memory that nobody has touched");
    point();
    region->untouched = false;
  }
  const u64 end = std::min<u64>(region->data.size(), region->fault_at);
  return offset >= end ? 0 : std::min(bytes, end - offset);
}

UserBuffer Sim::user(std::span<const u8> data) {
  UserBuffer buffer = user(static_cast<u64>(data.size()));
  buffer.set(data);
  return buffer;
}

// A hole behind each, so that what runs over its end faults.
UserBuffer Sim::user(u64 bytes) {
  UserBuffer buffer;
  buffer.address_ = kernel_->next_user;
  buffer.size_ = bytes;
  kernel_->next_user += (bytes + 2 * kPageBytes - 1) / kPageBytes * kPageBytes;
  kernel_->user[buffer.address_].data.resize(bytes);
  return buffer;
}

void Sim::set_pin_limit(u64 pages) { kernel_->pin_limit = pages; }

Bytes UserBuffer::bytes() const {
  auto at = kernel().user.find(address_);
  return at == kernel().user.end() ? Bytes() : at->second.data;
}

void UserBuffer::set(std::span<const u8> data, u64 offset) {
  auto at = kernel().user.find(address_);
  if (at == kernel().user.end() || offset + data.size() > size_)
    kernel().fatal("UserBuffer::set outside of it");
  std::copy(data.begin(), data.end(),
            at->second.data.begin() + static_cast<std::ptrdiff_t>(offset));
}

void UserBuffer::read(void* to, std::size_t bytes) const {
  const Bytes data = this->bytes();
  memcpy(to, data.data(), std::min(bytes, data.size()));
}

void UserBuffer::fault_at(u64 offset) { kernel().user[address_].fault_at = offset; }
void UserBuffer::untouch() { kernel().user[address_].untouched = true; }
void UserBuffer::make_read_only() { kernel().user[address_].read_only = true; }
void UserBuffer::unmap() { kernel().user.erase(address_); }

}  // namespace snbf::sim

using namespace snbf::sim;

namespace {

// Copies what can be reached; answers what cannot.
plat_size user_copy(Kernel& k, u64 address, void* kernel_side, u64 bytes, bool to_user,
                    Fault kind) {
  u64 limit = bytes;
  if (k.fault(kind, -EFAULT) != 0) limit = bytes / 2;
  u64 done = 0;
  while (done < limit) {
    const u64 piece = k.user_accessible(address + done, limit - done, to_user, true);
    if (piece == 0) break;
    u64 offset = 0;
    Kernel::UserRegion* region = k.user_region(address + done, &offset);
    char* side = static_cast<char*>(kernel_side) + done;
    if (to_user) {
      memcpy(region->data.data() + offset, side, piece);
    } else {
      memcpy(side, region->data.data() + offset, piece);
    }
    done += piece;
  }
  return bytes - done;
}

void check_pin(Kernel& k, const plat_user_pin* pin, plat_size offset, plat_size bytes,
               const char* call) {
  if (k.pins.count(const_cast<plat_user_pin*>(pin)) == 0)
    k.fatal("%s() on a pin that is gone", call);
  if (offset > pin->bytes || bytes > pin->bytes - offset) {
    k.fatal("%s() of bytes %zu to %zu, but only %llu are pinned", call, offset, offset + bytes,
            static_cast<unsigned long long>(pin->bytes));
  }
}

// Null once the process has unmapped it: the pages live on, but nobody can look at them any more.
u8* pinned_bytes(Kernel& k, const plat_user_pin* pin, plat_size offset) {
  u64 at = 0;
  Kernel::UserRegion* region = k.user_region(pin->address + offset, &at);
  return region == nullptr ? nullptr : region->data.data() + at;
}

}  // namespace

extern "C" {

int snbf_plat_user_range_ok(plat_u64 address, plat_u64 bytes) {
  enter("user_range_ok");
  return bytes <= kUserEnd && address <= kUserEnd - bytes ? 1 : 0;
}

plat_size snbf_plat_copy_from_user(void* to, plat_u64 from_user, plat_size bytes) {
  Kernel& k = enter_sleeping("copy_from_user");
  return user_copy(k, from_user, to, bytes, false, Fault::CopyFromUser);
}

plat_size snbf_plat_copy_to_user(plat_u64 to_user, const void* from, plat_size bytes) {
  Kernel& k = enter_sleeping("copy_to_user");
  return user_copy(k, to_user, const_cast<void*>(from), bytes, true, Fault::CopyToUser);
}

plat_user_pin* snbf_plat_user_pin(plat_u64 address, plat_size bytes, int writable) {
  Kernel& k = enter_sleeping("user_pin");
  if (k.fault_memory(Fault::UserPin)) return nullptr;
  u64 pinned = 0;
  u64 pages = 0;
  while (pinned < bytes && pages < k.pin_limit) {
    const u64 at = address + pinned;
    const u64 in_page = std::min<u64>(bytes - pinned, kPageBytes - at % kPageBytes);
    // A page is pinned whole or not at all; the end of a region inside it counts as the end of the
    // buffer.
    if (k.user_accessible(at, in_page, writable != 0, true) < in_page) break;
    pinned += in_page;
    ++pages;
  }
  auto* pin = new plat_user_pin{address, pinned, writable != 0};
  k.pins.insert(pin);
  return pin;
}

plat_size snbf_plat_user_pinned_bytes(const plat_user_pin* pin) {
  check_pin(enter("user_pinned_bytes"), pin, 0, 0, "user_pinned_bytes");
  return pin->bytes;
}

void snbf_plat_user_pin_write(plat_user_pin* pin, plat_size offset, const void* from,
                              plat_size bytes) {
  Kernel& k = enter("user_pin_write");
  check_pin(k, pin, offset, bytes, "user_pin_write");
  if (!pin->writable) k.fatal("user_pin_write() on a pin that was taken for reading");
  if (u8* to = pinned_bytes(k, pin, offset); to != nullptr) memcpy(to, from, bytes);
}

void snbf_plat_user_pin_read(plat_user_pin* pin, plat_size offset, void* to, plat_size bytes) {
  Kernel& k = enter("user_pin_read");
  check_pin(k, pin, offset, bytes, "user_pin_read");
  memset(to, 0, bytes);
  if (const u8* from = pinned_bytes(k, pin, offset); from != nullptr) memcpy(to, from, bytes);
}

void snbf_plat_user_unpin(plat_user_pin* pin) {
  Kernel& k = enter_sleeping("user_unpin");
  check_pin(k, pin, 0, 0, "user_unpin");
  k.pins.erase(pin);
  delete pin;
}
}
