#include "snap_model.h"

#include <algorithm>
#include <cstring>

namespace snbf::model {

namespace {

constexpr u64 kMark = 0x5BF0'5EC7'0A11'D0B5;
constexpr u32 kWords = kSectorBytes / 8;

u64 mark_of(u32 write, u64 sector) { return (u64{write} << 32 | static_cast<u32>(sector)) ^ kMark; }

void stamp(u32 write, u64 sector, u8* to) {
  const u64 mark = mark_of(write, sector);
  for (u64 i = 0; i < kWords; ++i) {
    const u64 word = mark * (2 * i + 1);
    std::memcpy(to + 8 * i, &word, 8);
  }
}

// At the end of a sector.
void put_mark(u32 write, u64 sector, u8* to) {
  const u64 words[] = {mark_of(write, sector), ~mark_of(write, sector)};
  static_assert(sizeof(words) == kMarkBytes);
  std::memcpy(to + kSectorBytes - kMarkBytes, words, kMarkBytes);
}

}  // namespace

// Write 0 is what was there before.
Partition::Partition(u64 sectors) : history_(sectors) {
  writes_.push_back({0, sectors, false, 0, 1, 1, true});
  for (auto& covering : history_) covering.push_back(0);
}

std::vector<u8> Partition::initial() const {
  std::vector<u8> bytes(sectors() * kSectorBytes);
  for (u64 sector = 0; sector < sectors(); ++sector)
    stamp(0, sector, &bytes[sector * kSectorBytes]);
  if (const auto laid_out = own_.find(0); laid_out != own_.end()) {
    const Own& own = laid_out->second;
    std::copy(own.bytes.begin(), own.bytes.end(),
              bytes.begin() + static_cast<long>(own.sector * kSectorBytes));
  }
  return bytes;
}

void Partition::keep_own(u32 number, u64 sector, std::vector<u8> bytes) {
  for (u64 at = 0; at < bytes.size(); at += kSectorBytes)
    put_mark(number, sector + at / kSectorBytes, &bytes[at]);
  own_[number] = {sector, std::move(bytes)};
}

void Partition::lay_out(u64 sector, std::vector<u8> bytes) {
  laid_out_first_ = sector;
  laid_out_end_ = sector + bytes.size() / kSectorBytes;
  keep_own(0, sector, std::move(bytes));
}

WriteTicket Partition::send_own(u64 sector, std::vector<u8> bytes) {
  const WriteTicket ticket = send(sector, bytes.size() / kSectorBytes, false);
  keep_own(ticket.first, sector, std::move(bytes));
  return ticket;
}

WriteTicket Partition::send(u64 sector, u64 sectors, bool zero) {
  const WriteTicket ticket = {static_cast<u32>(writes_.size()),
                              static_cast<u32>((sectors + kPieceSectors - 1) / kPieceSectors)};
  const u64 sent = now();
  for (u64 done = 0; done < sectors; done += kPieceSectors) {
    const u64 piece = std::min<u64>(kPieceSectors, sectors - done);
    const u32 number = static_cast<u32>(writes_.size());
    writes_.push_back({sector + done, piece, zero, sent, kNever});
    for (u64 i = 0; i < piece; ++i) history_[sector + done + i].push_back(number);
  }
  return ticket;
}

std::vector<u8> Partition::data(const WriteTicket& ticket) const {
  std::vector<u8> bytes;
  for (u32 number = ticket.first; number < ticket.first + ticket.count; ++number) {
    const Write& write = writes_[number];
    if (const auto own = own_.find(number); own != own_.end()) return own->second.bytes;
    const u64 from = bytes.size();
    bytes.resize(from + write.sectors * kSectorBytes);
    for (u64 i = 0; i < write.sectors; ++i)
      stamp(number, write.sector + i, &bytes[from + i * kSectorBytes]);
  }
  return bytes;
}

void Partition::end(const WriteTicket& ticket, bool ok, bool may_be_torn) {
  const u64 ended = now();
  for (u32 number = ticket.first; number < ticket.first + ticket.count; ++number) {
    Write& write = writes_[number];
    write.may_be_torn = !ok && may_be_torn;
    write.is_void = !ok && !may_be_torn && ticket.count == 1;
    write.over = ended;
    if (ok) write.ended = ended;
  }
}

void Partition::hardened(const WriteTicket& ticket) {
  for (u32 number = ticket.first; number < ticket.first + ticket.count; ++number)
    writes_[number].is_hard = true;
}

void Partition::flushed(u64 sent) { flushed_ = std::max(flushed_, sent); }

void Partition::power_cut() {
  cut_ = now();
  for (Write& write : writes_) write.is_lost = !is_durable(write);
}

std::string Partition::decode_own(u64 sector, const u8* bytes, Value* value) const {
  u64 mark;
  std::memcpy(&mark, bytes + kSectorBytes - kMarkBytes, sizeof(mark));
  const u32 number = static_cast<u32>((mark ^ kMark) >> 32);
  *value = {false, number};
  const auto own = own_.find(number);
  if (own == own_.end()) return "holds no metadata that anybody wrote";
  const u64 at = (sector - own->second.sector) * kSectorBytes;
  const bool covers = sector >= own->second.sector && at < own->second.bytes.size();
  if (covers && std::memcmp(&own->second.bytes[at], bytes, kSectorBytes) == 0) return "";
  return "holds metadata other than that of write " + std::to_string(number);
}

std::string Partition::decode(u64 sector, const u8* bytes, Value* value) const {
  if (is_laid_out(sector)) return decode_own(sector, bytes, value);
  u64 mark;
  std::memcpy(&mark, bytes, 8);
  const u32 number = static_cast<u32>((mark ^ kMark) >> 32);
  u8 expected[kSectorBytes] = {};
  *value = {mark == 0, number};
  if (mark != 0) {
    const u64 other = static_cast<u32>(mark ^ kMark);
    if (other < sectors() && other != sector && number < writes_.size()) {
      return "holds what write " + std::to_string(number) + " put into sector " +
             std::to_string(other);
    }
    stamp(number, sector, expected);
  }
  if (std::memcmp(expected, bytes, kSectorBytes) != 0 || (mark != 0 && number >= writes_.size())) {
    return "holds bytes that nobody wrote";
  }
  if (mark == 0) return "";
  const Write& write = writes_[number];
  if (write.zero || sector < write.sector || sector >= write.sector + write.sectors) {
    return "holds write " + std::to_string(number) + ", which never wrote there";
  }
  return "";
}

bool Partition::was_zeroed(u64 sector) const {
  return std::any_of(history_[sector].begin(), history_[sector].end(),
                     [&](u32 number) { return writes_[number].zero && !writes_[number].is_void; });
}

// Whether another write had surely replaced this one before `before`.
bool Partition::replaced(u64 sector, u32 number, u64 before) const {
  const u64 over = writes_[number].over;
  if (over == kNever) return false;
  for (auto at = history_[sector].rbegin(); at != history_[sector].rend() && *at > number; ++at) {
    const Write& write = writes_[*at];
    if (write.is_lost && cut_ < before) continue;
    if (write.ended < before && over < write.sent) return true;
  }
  return false;
}

bool Partition::possible(u64 sector, const Value& value, u64 from, u64 to) const {
  const auto may_be = [&](u32 number) {
    const Write& write = writes_[number];
    return write.zero == value.zero && !write.is_void && write.sent < to &&
           !replaced(sector, number, from);
  };
  return value.zero ? std::ranges::any_of(history_[sector], may_be) : may_be(value.write);
}

std::string Partition::describe(u64 sector, const Value& value) const {
  std::string text = value.zero ? "zero" : "write " + std::to_string(value.write);
  text += "; sent to it:";
  for (const u32 number : history_[sector]) {
    const Write& write = writes_[number];
    text += " " + std::to_string(number) + (write.zero ? "z" : "") + "[" +
            std::to_string(write.sent) + "," +
            (write.ended == kNever ? "-" : std::to_string(write.ended)) + "]";
  }
  return text;
}

std::string Partition::check_read(u64 sector, std::span<const u8> data, u64 sent) {
  const u64 ended = now();
  for (u64 done = 0; done < data.size(); done += kSectorBytes, ++sector) {
    Value value;
    std::string wrong = decode(sector, &data[done], &value);
    if (wrong.empty() && !possible(sector, value, sent, ended)) {
      wrong = "cannot hold in [" + std::to_string(sent) + "," + std::to_string(ended) + "] " +
              describe(sector, value);
    }
    if (!wrong.empty()) return "sector " + std::to_string(sector) + " of the partition " + wrong;
  }
  return "";
}

bool Partition::shows(const WriteTicket& ticket, u64 sector, std::span<const u8> data) const {
  const auto is_its = [&](u32 number) {
    return number >= ticket.first && number < ticket.first + ticket.count;
  };
  for (u64 done = 0; done < data.size(); done += kSectorBytes, ++sector) {
    Value value;
    if (!decode(sector, &data[done], &value).empty()) continue;
    const auto is_its_or_no_zero = [&](u32 number) {
      return !writes_[number].zero || is_its(number);
    };
    if (value.zero ? std::ranges::all_of(history_[sector], is_its_or_no_zero) : is_its(value.write))
      return true;
  }
  return false;
}

bool Partition::has_durable_behind(u64 sector, u32 number) const {
  const u64 over = writes_[number].over;
  return std::ranges::any_of(history_[sector], [&](u32 other) {
    return is_durable(writes_[other]) && over < writes_[other].sent;
  });
}

std::string Partition::check_kept(u64 sector, std::span<const u8> data, u64* kept) const {
  for (u64 done = 0; done < data.size(); done += kSectorBytes, ++sector) {
    if (has_durable_behind(sector, 0)) ++*kept;
    Value value;
    std::string wrong = decode(sector, &data[done], &value);
    const auto may_be = [&](u32 number) {
      return value.zero == writes_[number].zero && !writes_[number].is_void &&
             !has_durable_behind(sector, number);
    };
    if (wrong.empty() &&
        !(value.zero ? std::ranges::any_of(history_[sector], may_be) : may_be(value.write)))
      wrong = "has lost what was durable: it holds " + describe(sector, value);
    if (!wrong.empty()) return "sector " + std::to_string(sector) + " of the partition " + wrong;
  }
  return "";
}

SnapImage::SnapImage(Partition& partition)
    : partition_(&partition), asked_(partition.now()), seen_(partition.sectors(), kUnknown) {}

std::string SnapImage::check_same(u64 sector, std::span<const u8> data) {
  foreign_.resize(seen_.size());
  for (u64 done = 0; done < data.size(); done += kSectorBytes, ++sector) {
    u64 sum = 1;
    for (u64 i = 0; i < kSectorBytes; ++i) sum = (sum ^ data[done + i]) * 0x100'0000'01B3;
    if (foreign_[sector] != 0 && foreign_[sector] != sum) {
      return "sector " + std::to_string(sector) + " of the image has changed";
    }
    foreign_[sector] = sum;
  }
  return "";
}

std::string SnapImage::check_read(u64 sector, std::span<const u8> data) {
  for (u64 done = 0; done < data.size(); done += kSectorBytes, ++sector) {
    Value value;
    std::string wrong = partition_->decode(sector, &data[done], &value);
    const u32 code = code_of(value);
    if (!is_promised(sector)) {
      if (wrong.empty() && value.zero && !partition_->was_zeroed(sector))
        wrong = "holds zeros that nobody wrote";
      if (!wrong.empty())
        return "sector " + std::to_string(sector) + " of the image, a free one, " + wrong;
      continue;
    }
    if (wrong.empty() && seen_[sector] != kUnknown && seen_[sector] != code) {
      wrong = "has changed: it was " +
              (seen_[sector] == kZero ? "zero" : "write " + std::to_string(seen_[sector])) +
              " and is " + partition_->describe(sector, value);
    }
    if (wrong.empty() && seen_[sector] == kUnknown) {
      if (!partition_->possible(sector, value, asked_, started_)) {
        wrong = "cannot hold, with its start in [" + std::to_string(asked_) + "," +
                std::to_string(started_) + "], " + partition_->describe(sector, value);
      }
      seen_[sector] = code;
    }
    if (!wrong.empty()) return "sector " + std::to_string(sector) + " of the image " + wrong;
  }
  return "";
}

// Which writes the image surely holds and which it surely lacks.
struct SnapImage::Judged {
  std::vector<bool> in, out;

  Judged(const SnapImage& image) : in(image.partition_->writes_.size()), out(in.size()) {
    const Partition& partition = *image.partition_;
    for (u64 sector = 0; sector < image.seen_.size(); ++sector) {
      const u32 code = image.seen_[sector];
      if (code == kUnknown) continue;
      if (code == kZero) {
        lacks_all_behind_zeroes(partition, sector, image.started_);
      } else {
        in[code] = true;
        lacks_all_behind(partition, sector, partition.writes_[code].over, image.started_);
      }
    }
    for (u32 number = 0; number < in.size(); ++number) {
      if (partition.writes_[number].ended < image.asked_) in[number] = true;
    }
  }

 private:
  void lacks_all_behind(const Partition& partition, u64 sector, u64 over, u64 started) {
    for (const u32 number : partition.history_[sector]) {
      const u64 sent = partition.writes_[number].sent;
      if (sent > over && sent < started) out[number] = true;
    }
  }
  // Behind each of those that can have made the zeroes.
  void lacks_all_behind_zeroes(const Partition& partition, u64 sector, u64 started) {
    u64 last = 0;
    for (const u32 number : partition.history_[sector]) {
      const Partition::Write& write = partition.writes_[number];
      if (write.zero && !write.is_void && write.sent < started) last = std::max(last, write.over);
    }
    lacks_all_behind(partition, sector, last, started);
  }
};

std::string SnapImage::check_instant() const {
  const Judged judged(*this);
  u32 last_in = 0, first_out = 0;
  for (u32 number = 0; number < judged.in.size(); ++number) {
    const Partition::Write& write = partition_->writes_[number];
    if (judged.in[number] && judged.out[number] && !write.may_be_torn) {
      return "the image holds only a part of write " + std::to_string(number);
    }
    if (judged.in[number] && write.sent > partition_->writes_[last_in].sent) last_in = number;
    if (!judged.out[number] || write.ended == kNever) continue;
    if (first_out == 0 || write.ended < partition_->writes_[first_out].ended) first_out = number;
  }
  if (first_out == 0 || partition_->writes_[first_out].ended > partition_->writes_[last_in].sent)
    return "";
  return "the image is of no instant: it holds write " + std::to_string(last_in) +
         ", but not write " + std::to_string(first_out) + ", which had ended before that was sent";
}

}  // namespace snbf::model
