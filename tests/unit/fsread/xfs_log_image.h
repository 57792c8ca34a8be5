// The log of an XFS put together record by record, as a kernel writes it.
#pragma once

#include <algorithm>

#include "fsread/crc32c.h"
#include "put_bytes.h"

namespace snbf::sim {

using Bytes = std::vector<u8>;

// What a record holds.
struct LogBody {
  Bytes bytes;
  u32 ops = 0;

  LogBody& op(u8 client, u8 flags, const Bytes& data = {}) {
    const u64 at = bytes.size();
    bytes.resize(at + 12);
    put_be(bytes, at, 77, 4);
    put_be(bytes, at + 4, data.size(), 4);
    bytes[at + 8] = client;
    bytes[at + 9] = flags;
    bytes.insert(bytes.end(), data.begin(), data.end());
    ++ops;
    return *this;
  }
  LogBody& begin() {
    Bytes header(16);
    put_le(header, 0, 0x5452414E, 4);
    return op(0x69, 1).op(0x69, 0, header);
  }
  LogBody& commit() { return op(0x69, 2); }
  // A buffer's item: so many sectors at a place on the device.
  LogBody& buffer(u64 sector, u32 sectors, u16 regions = 2, u16 type = 0x123C) {
    Bytes item(24);
    put_le(item, 0, type, 2);
    put_le(item, 2, regions, 2);
    put_le(item, 6, sectors, 2);
    put_le(item, 8, sector, 8);
    op(0x69, 0, item);
    for (u16 n = 1; n < regions; ++n) op(0x69, 0, Bytes(384, 0x58));
    return *this;
  }

  static LogBody unmount() { return LogBody{}.op(0xAA, 0x20, Bytes(8)); }
  static LogBody superblock() { return LogBody{}.begin().buffer(0, 1).commit(); }
  // An inode and the header of an AG's free space.
  static LogBody work(u32 bytes = 3000) {
    LogBody body = LogBody{}.begin().buffer(1, 1).commit();
    body.op(0x69, 0, Bytes(bytes, 0x49));
    return body;
  }
};

// A ring of sectors. Records go to its head.
class XfsLogImage {
 public:
  explicit XfsLogImage(u32 sectors, u32 round = 1)
      : bytes(u64{sectors} * 512), sectors_(sectors), round_(round) {
    for (u32 n = 0; n < sectors; ++n) put_be(bytes, u64{n} * 512, round - 1, 4);
  }

  struct Options {
    u32 version = 2;
    u32 size_max = 32768;
    bool has_checksum = true;
  };
  // Where it stands, as its own number and as a tail: round << 32 | sector.
  u64 add(const LogBody& body, u64 tail, Options options) {
    const u32 header_sectors = options.version == 2 ? (options.size_max + 32767) / 32768 : 1;
    const u32 body_sectors = static_cast<u32>((body.bytes.size() + 511) / 512);
    const u64 here = u64{round_} << 32 | head_;
    Bytes record((header_sectors + body_sectors) * 512u);
    std::copy(body.bytes.begin(), body.bytes.end(), record.begin() + header_sectors * 512);
    const u32 length =
        options.version == 2 ? body_sectors * 512 : static_cast<u32>(body.bytes.size());
    put_be(record, 0, 0xFEEDBABE, 4);
    put_be(record, 4, round_, 4);
    put_be(record, 8, options.version, 4);
    put_be(record, 12, length, 4);
    put_be(record, 16, here, 8);
    put_be(record, 24, tail == kSelf ? here : tail, 8);
    put_be(record, 40, body.ops, 4);
    put_be(record, 300, 1, 4);
    put_be(record, 320, options.size_max, 4);
    for (u32 n = 1; n < header_sectors + body_sectors; ++n) {
      const u32 round = round_ + (head_ + n >= sectors_ ? 1 : 0);
      if (n >= header_sectors) {
        const u32 word = n - header_sectors;
        const u32 at = word / 64 == 0 ? 44 + word * 4 : word / 64 * 512 + 4 + word % 64 * 4;
        std::copy_n(record.begin() + n * 512, 4, record.begin() + at);
      }
      put_be(record, u64{n} * 512, round, 4);
    }
    if (options.has_checksum) {
      u32 value = crc32c(~0u, record.data(), 328);
      for (u32 n = 1; n < header_sectors; ++n) value = crc32c(value, record.data() + n * 512, 260);
      value = crc32c(value, record.data() + header_sectors * 512, length);
      put_le(record, 32, ~value, 4);
    }
    for (u32 n = 0; n < record.size() / 512; ++n) {
      const u32 to = (head_ + n) % sectors_;
      std::copy_n(record.begin() + n * 512, 512, bytes.begin() + long{to} * 512);
    }
    head_ += static_cast<u32>(record.size() / 512);
    if (head_ >= sectors_) {
      head_ -= sectors_;
      ++round_;
    }
    return here;
  }
  u64 add(const LogBody& body, u64 tail = kSelf) { return add(body, tail, Options{}); }

  u32 head() const { return head_; }

  static constexpr u64 kSelf = ~u64{0};
  Bytes bytes;

 private:
  u32 sectors_;
  u32 round_;
  u32 head_ = 0;
};

}  // namespace snbf::sim
