// SPDX-License-Identifier: GPL-2.0-only
// What a reader of one kind of file system offers to the data-block map, and which reader is asked.
#pragma once

#include "base/types.h"
#include "base/units.h"
#include "platform/block.h"

namespace snbf {

// Three operations over a handle that only the reader itself knows. All may sleep.
struct FsReader {
  // A handle, or null when the device does not hold this file system or cannot be read. The block
  // size in bytes is stored through `block_size` unless that is null.
  void* (*init)(plat_bdev* bdev, u32* block_size);
  // Clears the first (chunk_count + 7) / 8 bytes of `bits` and sets bit k when a block of chunk
  // first + k is in use. The chunk size is a power of two of at least a block. Negative on failure.
  int (*read)(void* reader, u64 first, u32 chunk_size, u8* bits, u32 chunk_count);
  // Always 0. Null is allowed.
  int (*destroy)(void* reader);
  // A chunk may count as used although each of its blocks, asked for alone, is free.
  bool rounds_up;
};

// The three typed verbs of a reader as such a record.
template <typename Reader, Reader* (*kInit)(plat_bdev*, u32*),
          int (*kRead)(Reader*, u64, u32, u8*, u32), int (*kDestroy)(Reader*)>
constexpr FsReader reader_of(bool rounds_up) {
  return {[](plat_bdev* bdev, u32* block_size) -> void* { return kInit(bdev, block_size); },
          [](void* reader, u64 first, u32 chunk_size, u8* bits, u32 chunk_count) {
            return kRead(static_cast<Reader*>(reader), first, chunk_size, bits, chunk_count);
          },
          [](void* reader) { return kDestroy(static_cast<Reader*>(reader)); }, rounds_up};
}

// What a reader says of a device before any is opened.
enum class Claim {
  NotMine,  // go on asking
  Mine,     // only this one may read it
  Nobodys,  // none may: it would be misread
};

// A reader at work on a device; destroyed on leaving the scope.
class OpenReader {
 public:
  // Asks the readers in turn: ext2/ext3, ReiserFS, XFS. In front of each stands a claim on what it
  // would misread; where the claimant cannot read it either, nobody may.
  OpenReader(plat_bdev* bdev, u32* block_size);
  ~OpenReader();
  OpenReader(const OpenReader&) = delete;
  OpenReader& operator=(const OpenReader&) = delete;

  explicit operator bool() const { return handle_ != nullptr; }
  bool rounds_up() const { return reader_->rounds_up; }
  int read(u64 first, u32 chunk_size, u8* bits, u32 chunk_count) const {
    return reader_->read(handle_, first, chunk_size, bits, chunk_count);
  }

 private:
  const FsReader* reader_ = nullptr;
  void* handle_ = nullptr;
};

// Least significant bit first.
inline void set_bit_of(u8* bits, u64 bit) {
  bits[bit >> 3] = static_cast<u8>(bits[bit >> 3] | 1u << (bit & 7));
}
inline bool bit_of(const u8* bits, u64 bit) { return (bits[bit >> 3] >> (bit & 7) & 1) != 0; }

constexpr bool is_chunk_size(u32 bytes) { return bytes >= 2 && is_power_of_two(bytes); }

// 0, or -EINVAL with the line that says what is wrong: the checks that every reader begins with.
int check_reader_chunks(const char* origin, u32 chunk_size, u32 block_size);

constexpr u16 le16_at(const u8* at) { return static_cast<u16>(at[0] | at[1] << 8); }
constexpr u32 le32_at(const u8* at) {
  return static_cast<u32>(le16_at(at)) | static_cast<u32>(le16_at(at + 2)) << 16;
}
constexpr u64 le64_at(const u8* at) { return u64{le32_at(at + 4)} << 32 | le32_at(at); }
constexpr u16 be16_at(const u8* at) { return static_cast<u16>(at[0] << 8 | at[1]); }
constexpr u32 be32_at(const u8* at) {
  return static_cast<u32>(be16_at(at)) << 16 | static_cast<u32>(be16_at(at + 2));
}
constexpr u64 be64_at(const u8* at) { return u64{be32_at(at)} << 32 | be32_at(at + 4); }

}  // namespace snbf
