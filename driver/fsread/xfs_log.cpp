// SPDX-License-Identifier: GPL-2.0-only
//
// The log is a ring of 512-byte sectors, written in records: a sector of header (one more for each
// further 32 KiB that a record may hold), then operations. Every sector begins with the number of
// the round in which it was written; the header keeps the words that had to make room. Where one
// round meets the one before is the head, and the record in front of it is the last. It names the
// tail: the oldest record that a replay would begin with.
#include "fsread/xfs_log.h"

#include "core/memory.h"
#include "fsread/crc32c.h"
#include "fsread/metaread.h"
#include "fsread/reader.h"

namespace snbf {

namespace {

constexpr const char* kElsewhere = "a log on another device";
constexpr const char* kUnreadable = "a log that cannot be read";
constexpr const char* kUnclear = "a log that is not understood";
constexpr const char* kPending = "a log that is not replayed";

constexpr u32 kRecordMagic = 0xFEEDBABE;
constexpr u32 kTransMagic = 0x5452414E;
constexpr u32 kLittleEndianFormat = 1;
constexpr u32 kBlockSizeMax = 65536;

constexpr u32 kRecordBytesMax = 256 << 10;
constexpr u32 kHeaderReach = 32 << 10;  // bytes of a record that one header sector keeps words of
constexpr u32 kWordsPerHeader = kHeaderReach / kSectorBytes;
constexpr u32 kHeaderSectorsMax = kRecordBytesMax / kHeaderReach;
constexpr u32 kRecordSectorsMax = kRecordBytesMax / kSectorBytes;
// So many records may be on their way at once, and come to the disk in any order.
constexpr u32 kDisorderSectors = 8 * kRecordSectorsMax;
// Covering takes two records; the one in front of them is looked at when only one was needed.
constexpr u32 kRecordsMax = 8;

constexpr u32 kHeaderBytes = 328;  // that the checksum covers, of the first sector
constexpr u32 kMoreHeaderBytes = 260;
constexpr u32 kChecksumAt = 32;
constexpr u32 kWordsAt = 44;
constexpr u32 kMoreWordsAt = 4;

constexpr u32 kOpBytes = 12;
constexpr u8 kTransClient = 0x69;
enum OpFlag : u8 { kOpStart = 0x1, kOpCommit = 0x2, kOpUnmount = 0x20 };
constexpr u32 kTransHeaderBytes = 16;
constexpr u32 kBufferItem = 0x123C;
constexpr u32 kBufferItemBytesMin = 20;

u32 round_of(const u8* sector) {
  const u32 first = be32_at(sector);
  return first == kRecordMagic ? be32_at(sector + 4) : first;
}

// Only the superblock's own buffer, at the very front, and not the AG's headers behind it.
bool is_superblock_item(const u8* item, u32 bytes, u32 sector_size) {
  return bytes >= kBufferItemBytesMin && le16_at(item) == kBufferItem && le16_at(item + 2) != 0 &&
         u32{le16_at(item + 6)} * kSectorBytes <= sector_size && le64_at(item + 8) == 0;
}

// Whole transactions that change the superblock, and nothing else.
bool is_superblock_alone(const u8* body, u32 bytes, u32 ops, u32 sector_size) {
  bool is_open = false;
  bool has_header = false;
  u32 regions = 0;  // of the item in hand, that are still to come
  for (; ops > 0; --ops) {
    if (bytes < kOpBytes) return false;
    const u32 length = be32_at(body + 4);
    const u8 client = body[8];
    const u8 flags = body[9];
    body += kOpBytes;
    bytes -= kOpBytes;
    if (client != kTransClient || length > bytes) return false;
    if (flags == kOpStart || flags == kOpCommit) {
      const bool is_start = flags == kOpStart;
      if (length != 0 || is_open == is_start || (!is_start && (!has_header || regions != 0))) {
        return false;
      }
      is_open = is_start;
      has_header = false;
    } else if (flags != 0 || !is_open) {
      return false;  // also a piece of an operation that another record continues
    } else if (!has_header) {
      if (length != kTransHeaderBytes || le32_at(body) != kTransMagic) return false;
      has_header = true;
    } else if (regions > 0) {
      --regions;
    } else {
      if (!is_superblock_item(body, length, sector_size)) return false;
      regions = le16_at(body + 2) - 1u;
    }
    body += length;
    bytes -= length;
  }
  return !is_open;
}

struct Record {
  u32 sector;
  u32 header_sectors;
  u32 body_bytes;
  u32 ops;
  u64 tail;  // round << 32 | sector
  u32 end;   // the sector behind it; the log's first one for the end of the ring
};

class XfsLog {
 public:
  XfsLog(plat_bdev* bdev, const XfsSuper& super)
      : bdev_(bdev),
        at_(super.log_start_block() * super.block_size),
        sectors_(super.log_blocks * (super.block_size / kSectorBytes)),
        sector_size_(super.sector_size),
        buffer_((kRecordSectorsMax + kHeaderSectorsMax) * kSectorBytes) {}

  const char* judge() {
    if (!buffer_) return kUnreadable;
    if (const char* why = find_head(); why != nullptr) return why;
    u32 last = 0;
    if (const char* why = look_back(&last); why != nullptr) return why;
    Record record;
    if (const char* why = load_record(last, &record); why != nullptr) return why;
    if (record.end != end_) return kUnclear;
    return is_unmount(record) ? nullptr : judge_from(record.tail, last);
  }

 private:
  // Sectors of the ring into the front of the buffer.
  bool load(u32 first, u32 count) {
    const u32 to_end = sectors_ - first;
    const u32 part = count < to_end ? count : to_end;
    return read(buffer_.data(), first, part) &&
           read(buffer_.data() + size_t{part} * kSectorBytes, 0, count - part);
  }
  bool read(u8* to, u32 first, u32 count) {
    return read_metadata(bdev_, to, at_ + u64{first} * kSectorBytes, u64{count} * kSectorBytes) ==
           0;
  }
  const u8* loaded(u32 n) { return buffer_.data() + size_t{n} * kSectorBytes; }

  // The first sector that is not of the newest round. Rounds fall only once along the ring, but for
  // the disorder that is looked for afterwards.
  const char* find_head() {
    if (!load(0, 1)) return kUnreadable;
    newest_ = round_of(loaded(0));
    if (!load(sectors_ - 1, 1)) return kUnreadable;
    oldest_ = round_of(loaded(0));
    head_ = sectors_;
    if (newest_ == 0 || (newest_ != oldest_ && newest_ != oldest_ + 1)) return kUnclear;
    if (newest_ == oldest_) return nullptr;
    u32 newer = 0;
    head_ = sectors_ - 1;
    while (head_ - newer > 1) {
      const u32 middle = newer + (head_ - newer) / 2;
      if (!load(middle, 1)) return kUnreadable;
      (round_of(loaded(0)) == oldest_ ? head_ : newer) = middle;
    }
    return nullptr;
  }

  u32 round_at(u32 sector) const { return sector < head_ ? newest_ : oldest_; }

  // Finds the last record. What may have come out of order in front of the head is all there.
  const char* look_back(u32* last) {
    const u32 reach = kDisorderSectors < sectors_ ? kDisorderSectors : sectors_;
    bool is_found = false;
    bool has_blanks = false;
    end_ = head_ % sectors_;
    for (u32 left = reach; left > 0;) {
      const u32 part = left < kRecordSectorsMax ? left : kRecordSectorsMax;
      const u32 first = (head_ % sectors_ + sectors_ - left) % sectors_;
      if (!load(first, part)) return kUnreadable;
      for (u32 n = 0; n < part; ++n) {
        const u32 sector = (first + n) % sectors_;
        const u32 round = round_of(loaded(n));
        // A tool that puts a new log in place of an old one may leave blanks in front of the head.
        const bool is_blank = round == 0 && round_at(sector) != 0;
        if (is_blank && !has_blanks) end_ = sector;
        has_blanks = has_blanks || is_blank;
        if (has_blanks ? !is_blank : round != round_at(sector)) return kPending;
        if (be32_at(loaded(n)) != kRecordMagic) continue;
        *last = sector;
        is_found = true;
      }
      left -= part;
    }
    return is_found ? nullptr : kUnclear;
  }

  // Brings a record into the buffer, its words back in their places.
  const char* load_record(u32 sector, Record* record) {
    if (!load(sector, 1)) return kUnreadable;
    if (const char* why = take_header(sector, record); why != nullptr) return why;
    const u32 body_sectors = (record->body_bytes + kSectorBytes - 1) / kSectorBytes;
    const u32 count = record->header_sectors + body_sectors;
    if (count > sectors_) return kUnclear;
    if (!load(sector, count)) return kUnreadable;
    if (!checksum_holds(*record)) return kUnclear;
    restore_words(*record, body_sectors);
    record->end = (sector + count) % sectors_;
    return nullptr;
  }

  const char* take_header(u32 sector, Record* record) {
    const u8* header = loaded(0);
    const u32 version = be32_at(header + 8);
    const u32 size_max = version == 2 ? be32_at(header + 320) : kHeaderReach;
    const u64 here = u64{round_at(sector)} << 32 | sector;
    if (be32_at(header) != kRecordMagic || version == 0 || version > 2 ||
        be64_at(header + 16) != here || be32_at(header + 300) != kLittleEndianFormat) {
      return kUnclear;
    }
    *record = {.sector = sector,
               .header_sectors = (size_max + kHeaderReach - 1) / kHeaderReach,
               .body_bytes = be32_at(header + 12),
               .ops = be32_at(header + 40),
               .tail = be64_at(header + 24),
               .end = 0};
    const bool fits = size_max != 0 && size_max <= kRecordBytesMax && record->body_bytes != 0 &&
                      record->body_bytes <= record->header_sectors * kHeaderReach;
    return fits ? nullptr : kUnclear;
  }

  // Tools that write a log leave the checksum out.
  bool checksum_holds(const Record& record) {
    const u8* header = loaded(0);
    if (le32_at(header + kChecksumAt) == 0) return true;
    const u8 no_checksum[4] = {};
    u32 value = crc32c(~0u, header, kChecksumAt);
    value = crc32c(value, no_checksum, sizeof(no_checksum));
    value = crc32c(value, header + kChecksumAt + 4, kHeaderBytes - kChecksumAt - 4);
    for (u32 n = 1; n < record.header_sectors; ++n) {
      value = crc32c(value, loaded(n), kMoreHeaderBytes);
    }
    value = crc32c(value, loaded(record.header_sectors), record.body_bytes);
    return ~value == le32_at(header + kChecksumAt);
  }

  void restore_words(const Record& record, u32 body_sectors) {
    for (u32 n = 0; n < body_sectors; ++n) {
      const u32 header = n / kWordsPerHeader;
      const u8* words = loaded(header) + (header == 0 ? kWordsAt : kMoreWordsAt);
      const u8* word = words + n % kWordsPerHeader * 4;
      u8* sector = buffer_.data() + size_t{record.header_sectors + n} * kSectorBytes;
      for (u32 byte = 0; byte < 4; ++byte) sector[byte] = word[byte];
    }
  }

  const u8* body(const Record& record) { return loaded(record.header_sectors); }

  bool is_unmount(const Record& record) {
    return record.ops == 1 && record.body_bytes >= kOpBytes && (body(record)[9] & kOpUnmount) != 0;
  }

  const char* judge_from(u64 tail, u32 last) {
    u32 sector = static_cast<u32>(tail);
    if (sector >= sectors_ || tail >> 32 != round_at(sector)) return kUnclear;
    for (u32 n = 0; n < kRecordsMax; ++n) {
      Record record;
      if (const char* why = load_record(sector, &record); why != nullptr) return why;
      if (!is_superblock_alone(body(record), record.body_bytes, record.ops, sector_size_)) break;
      if (sector == last) return nullptr;
      sector = record.end;
    }
    return kPending;
  }

  plat_bdev* bdev_;
  u64 at_;  // in bytes of the device
  u32 sectors_;
  u32 sector_size_;
  VirtBuffer buffer_;
  u32 newest_ = 0;  // round, of the log's front
  u32 oldest_ = 0;  // round, of its end
  u32 head_ = 0;    // the log's length when all of it is of one round
  u32 end_ = 0;     // of the last record, by what follows it
};

bool has_place(const XfsSuper& super, u64 device_bytes) {
  if (!is_power_of_two(super.block_size) || super.block_size < kSectorBytes ||
      super.block_size > kBlockSizeMax || super.ag_block_log > 31) {
    return false;
  }
  const u64 blocks = device_bytes / super.block_size;
  const u64 bytes = u64{super.log_blocks} * super.block_size;
  // With an AG that far behind the end its number in blocks could wrap into the device.
  if (super.ag_blocks != 0 && super.log_start >> super.ag_block_log > blocks / super.ag_blocks)
    return false;
  const u64 first = super.log_start_block();
  return super.log_blocks >= 2 && bytes <= 0x80000000 && first < blocks &&
         super.log_blocks <= blocks - first;
}

}  // namespace

const char* judge_xfs_log(plat_bdev* bdev, const XfsSuper& super) {
  if (super.log_start == 0) return kElsewhere;
  if (!has_place(super, snbf_plat_bdev_bytes(bdev))) return kUnreadable;
  return XfsLog{bdev, super}.judge();
}

}  // namespace snbf
