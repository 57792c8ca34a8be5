// SPDX-License-Identifier: GPL-2.0-only
// libblkid of Debian 12 tells the kind of a file system for certain, but not yet its size: the
// three fields that say it are read here.
#include "fs_end.h"

#include <endian.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "files.h"

namespace snbf {

namespace {

using Superblock = std::array<uint8_t, 1024>;

constexpr uint64_t kExtAt = 1024;
constexpr uint64_t kReiserfsAt = 65536;
constexpr uint16_t kExtMagic = 0xEF53;
constexpr uint32_t kExtIncompat64Bit = 0x80;
constexpr uint32_t kExtLogBlockMax = 6;

template <class Number>
Number raw(const Superblock& block, size_t at) {
  Number number;
  std::memcpy(&number, block.data() + at, sizeof number);
  return number;
}
uint32_t le32(const Superblock& block, size_t at) { return le32toh(raw<uint32_t>(block, at)); }
uint16_t le16(const Superblock& block, size_t at) { return le16toh(raw<uint16_t>(block, at)); }

bool read_superblock(int fd, uint64_t at, Superblock* out) {
  return ::pread(fd, out->data(), out->size(), static_cast<off_t>(at)) ==
         static_cast<ssize_t>(out->size());
}

std::optional<uint64_t> ext_end(int fd) {
  Superblock block;
  if (!read_superblock(fd, kExtAt, &block) || le16(block, 0x38) != kExtMagic) return std::nullopt;
  const uint32_t log_block = le32(block, 0x18);
  if (log_block > kExtLogBlockMax) return std::nullopt;
  uint64_t blocks = le32(block, 0x4);
  if (le32(block, 0x60) & kExtIncompat64Bit) blocks |= uint64_t{le32(block, 0x150)} << 32;
  if (blocks >> (53 - log_block) != 0) return std::nullopt;
  return blocks << (10 + log_block);
}

std::optional<uint64_t> xfs_end(int fd) {
  Superblock block;
  if (!read_superblock(fd, 0, &block) || std::memcmp(block.data(), "XFSB", 4) != 0) {
    return std::nullopt;
  }
  const uint64_t block_size = be32toh(raw<uint32_t>(block, 4));
  uint64_t end = 0;
  if (__builtin_mul_overflow(be64toh(raw<uint64_t>(block, 8)), block_size, &end)) {
    return std::nullopt;
  }
  return end;
}

std::optional<uint64_t> reiserfs_end(int fd) {
  Superblock block;
  if (!read_superblock(fd, kReiserfsAt, &block) || std::memcmp(&block[52], "ReIsEr", 6) != 0) {
    return std::nullopt;
  }
  return uint64_t{le32(block, 0)} * le16(block, 44);
}

bool is_ext(const std::string& type) { return type == "ext2" || type == "ext3" || type == "ext4"; }

}  // namespace

bool has_reader(const std::string& type) {
  return is_ext(type) || type == "xfs" || type == "reiserfs";
}

std::optional<uint64_t> file_system_end(const std::string& path, const std::string& type) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::optional<uint64_t> end;
  if (is_ext(type)) end = ext_end(file.get());
  if (type == "xfs") end = xfs_end(file.get());
  if (type == "reiserfs") end = reiserfs_end(file.get());
  const off_t device_end = ::lseek(file.get(), 0, SEEK_END);
  if (!end || *end == 0 || device_end < 0 || *end > static_cast<uint64_t>(device_end)) {
    return std::nullopt;
  }
  return end;
}

}  // namespace snbf
