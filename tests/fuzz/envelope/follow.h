// One command's effect on what the bitmaps of its node must hold.
#pragma once

#include <optional>

#include "base/errno.h"
#include "envelope/marks.h"
#include "envelope/records.h"

namespace snbf::fuzz {

using NodeMarks = Marks[2];  // by type of the bitmap

inline Extents extents_in(const Bytes& bitmap) {
  Extents extents;
  for (size_t n = 0; n < std::min(bitmap.size() * 8, kExtentsMax); ++n) {
    extents[n] = (bitmap[n / 8] >> n % 8 & 1) != 0;
  }
  return extents;
}

// Of a fill, whose marks end nowhere, only what the bitmap has counts.
inline bool lacks(const Bytes& bitmap, const Extents& wanted) {
  const Extents found = extents_in(bitmap);
  for (size_t n = 0; n < std::min(bitmap.size() * 8, kExtentsMax); ++n) {
    if (wanted[n] && !found[n]) return true;
  }
  return false;
}

// A command on its way.
struct Call {
  u32 number;
  Bytes record;
  u32 minor, type;  // the first two words of the record
  Bytes data;       // of the buffer that it names
};

// `has_faults`: a load, or that of a start, may bring an older bitmap back where a file could not be written.
inline bool takes_away(u32 number, bool has_faults) {
  switch (number) {
    case SNBF_DEL_NODE:
    case SNBF_CLR_BMP:
    case SNBF_SET_BMP:
    case SNBF_GET_AND_CLR_BMP:
      return true;
    case SNBF_LOAD_BMP:
    case SNBF_START_NODE:
      return has_faults;
    default:
      return false;
  }
}

// Of one bitmap, from before the command to behind it.
class Follower {
 public:
  Follower(Marks& marks, const Call& call, u32 type, bool has_faults)
      : marks_(marks),
        call_(call),
        has_faults_(has_faults),
        began_(marks.now()),
        wanted_(marks.must()) {
    const bool is_about_node = call.record.size() == sizeof(u32);
    is_about_it_ = is_about_node || call.type == type;
    if (is_about_it_ && takes_away(call.number, has_faults)) taking_ = marks.begin_taking();
  }
  // `told`: what is in the caller's buffer now. What is wrong, or null.
  const char* end(int rc, const Bytes& told) {
    if (taking_) return end_taking(rc, told);
    if (rc != 0 || !is_about_it_) return nullptr;
    if (call_.number == SNBF_MERGE_BMP) marks_.add(began_, extents_in(told));
    const bool is_missing = lacks(told, wanted_) && marks_.kept_since(began_);
    return call_.number == SNBF_GET_BMP && is_missing ? "GET_BMP does not tell of a change"
                                                      : nullptr;
  }

 private:
  const char* end_taking(int rc, const Bytes& told) {
    const bool is_loss = rc == 0 && call_.number == SNBF_GET_AND_CLR_BMP &&
                         marks_.is_alone(*taking_) && lacks(told, taking_->taken);
    // Nothing is known of what a bad address cut off.
    const bool is_refused = rc != 0 && rc != -EFAULT && !has_faults_;
    Extents left = is_refused ? taking_->taken : Extents{};
    if (rc == 0 && call_.number == SNBF_SET_BMP)
      left = call_.data.empty() ? Extents{}.set() : extents_in(told);
    const bool is_all_told = rc == 0 && call_.number == SNBF_GET_AND_CLR_BMP;
    marks_.end_taking(*taking_, left, is_all_told ? extents_in(told) : Extents{}.set());
    return is_loss ? "GET_AND_CLR_BMP loses a change" : nullptr;
  }

  Marks& marks_;
  const Call& call_;
  bool has_faults_;
  bool is_about_it_;
  Marks::Moment began_;
  Extents wanted_;
  std::optional<Marks::Taking> taking_;
};

}  // namespace snbf::fuzz
