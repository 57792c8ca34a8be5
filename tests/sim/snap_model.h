// What a partition and the images of its snaps may hold.
//
// Every sector that a test writes carries the number of its write, so that a sector that is read
// says which write made it. The model keeps when each write was sent and when it ended, and judges
// what reads find:
//
//   - a read of the partition finds, for each sector, no write that was sent after the read, and
//   none that another
//     one had surely replaced before it;
//   - an image holds every write that had ended before the start was asked for, and none that was
//   sent after the
//     start had answered; what a write that ran beside the start left in it is free, but whole, and
//     of one instant: if the image holds a write, it holds all that ended before that one was sent;
//   - two reads of a sector of one image find the same;
//   - of what its file system did not use at its start an image promises nothing: there it may hold
//   anything that was ever written to that sector.
//
// Some sectors hold what a file system keeps about itself. There a write's number stands at the
// end, beside its complement: so it changes no count of bits.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace snbf::model {

using u8 = std::uint8_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

constexpr u64 kNever = ~u64{0};
constexpr u32 kSectorBytes = 512;
constexpr u32 kMarkBytes = 16;
constexpr u32 kPieceSectors = (4 << 20) / kSectorBytes;  // a larger request is cut into these

// A request: its pieces have consecutive numbers.
struct WriteTicket {
  u32 first;
  u32 count;
};

class Partition {
 public:
  explicit Partition(u64 sectors);

  u64 sectors() const { return history_.size(); }
  // What the partition must hold before anything is sent.
  std::vector<u8> initial() const;

  // `zero`: a discard, or zeroes written.
  WriteTicket send(u64 sector, u64 sectors, bool zero);
  // From here on these sectors hold bytes of their senders' own, but for the last kMarkBytes of each.
  // Before anything is sent.
  void lay_out(u64 sector, std::vector<u8> bytes);
  // One piece, within what is laid out.
  WriteTicket send_own(u64 sector, std::vector<u8> bytes);
  std::vector<u8> data(const WriteTicket& ticket) const;
  // One that failed may have reached the partition, or not: where it may be torn each sector apart; else each piece as
  // a whole, and one that is all of its request not at all.
  void end(const WriteTicket& ticket, bool ok, bool may_be_torn = false);
  // A write that has ended well was sent to be durable at its end.
  void hardened(const WriteTicket& ticket);
  // A flush has ended well; it was sent at `sent`.
  void flushed(u64 sent);
  // The power is gone, and with it may be what was not durable.
  void power_cut();

  u64 now() { return ++clock_; }
  u64 writes() const { return writes_.size(); }

  // What a power cut may have left of all that was sent, from `sector` on: each sector holds a write behind which
  // no durable one was sent. "" or what is wrong. `kept` counts the sectors of which anything was promised.
  std::string check_kept(u64 sector, std::span<const u8> data, u64* kept) const;
  // Whether any of these sectors holds what this write alone can have put there.
  bool shows(const WriteTicket& ticket, u64 sector, std::span<const u8> data) const;
  // What a read may have found that was sent at `sent` and has just ended. "" or what is wrong.
  std::string check_read(u64 sector, std::span<const u8> data, u64 sent);

 private:
  friend class SnapImage;
  struct Write {
    u64 sector, sectors;
    bool zero;
    u64 sent;
    u64 ended;          // kNever: not, or it failed: it proves nothing of others
    u64 over = kNever;  // ended or failed: from then on it puts nothing there
    bool is_hard = false;
    bool is_lost = false;  // or may be, from the power cut on
    bool may_be_torn = false;
    bool is_void = false;  // it failed, and has put nothing there
  };
  // What a sector says: the write that made it, or that it is zero.
  struct Value {
    bool zero;
    u32 write;
    bool operator==(const Value&) const = default;
  };

  struct Own {
    u64 sector;
    std::vector<u8> bytes;
  };
  bool is_laid_out(u64 sector) const { return sector >= laid_out_first_ && sector < laid_out_end_; }
  void keep_own(u32 number, u64 sector, std::vector<u8> bytes);

  // "" or why the bytes are nothing that was ever written there.
  std::string decode(u64 sector, const u8* bytes, Value* value) const;
  std::string decode_own(u64 sector, const u8* bytes, Value* value) const;
  // Whether a discard may ever have reached it.
  bool was_zeroed(u64 sector) const;
  // Whether `value` may be in the sector for somebody who looks between `from` and `to`.
  bool possible(u64 sector, const Value& value, u64 from, u64 to) const;
  bool replaced(u64 sector, u32 write, u64 before) const;
  std::string describe(u64 sector, const Value& value) const;
  bool is_durable(const Write& write) const {
    return write.ended != kNever && !write.is_lost && (write.is_hard || write.ended < flushed_);
  }
  bool has_durable_behind(u64 sector, u32 write) const;

  std::vector<Write> writes_;
  std::vector<std::vector<u32>>
      history_;  // of each sector: the writes that cover it, as they were sent
  std::map<u32, Own> own_;  // by the number of the write
  u64 laid_out_first_ = 0, laid_out_end_ = 0;
  u64 clock_ = 1;
  u64 cut_ = kNever;
  u64 flushed_ = 0;  // when the last of the flushes that have ended was sent
};

// The image of one start. Made when the start is asked for.
class SnapImage {
 public:
  explicit SnapImage(Partition& partition);

  void started() { started_ = partition_->now(); }
  // Of each chunk whether its contents are promised; until this is known all are.
  void promise_only(std::vector<bool> chunks, u64 chunk_sectors) {
    promised_ = std::move(chunks);
    chunk_sectors_ = chunk_sectors;
  }
  const std::vector<bool>& promised() const { return promised_; }
  // What a read that succeeded has found. "" or what is wrong.
  std::string check_read(u64 sector, std::span<const u8> data);
  // Of sectors that the model knows nothing of: only that they stay what they were.
  std::string check_same(u64 sector, std::span<const u8> data);
  // Everything that was found, as one instant. "" or what is wrong.
  std::string check_instant() const;

 private:
  using Value = Partition::Value;
  struct Judged;

  static constexpr u32 kUnknown = ~u32{0};
  static constexpr u32 kZero = ~u32{0} - 1;
  bool is_promised(u64 sector) const {
    return promised_.empty() || promised_[sector / chunk_sectors_];
  }
  static u32 code_of(const Value& value) { return value.zero ? kZero : value.write; }

  Partition* partition_;
  u64 asked_;
  u64 started_ = kNever;
  std::vector<u32> seen_;
  std::vector<bool> promised_;  // of each chunk; empty: all are
  u64 chunk_sectors_ = 1;
  std::vector<u64> foreign_;  // sums of the sectors that the model knows nothing of; 0: not seen
};

}  // namespace snbf::model
