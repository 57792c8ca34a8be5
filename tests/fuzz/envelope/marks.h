// What a change bitmap must hold while several callers use it: the extents of acknowledged writes that no
// command can have taken away since.
#pragma once

#include <bitset>
#include <utility>

#include "base/types.h"

namespace snbf::fuzz {

constexpr size_t kExtentsMax = 256;
using Extents = std::bitset<kExtentsMax>;

class Marks {
 public:
  // The moment at which a write, a merge or a look begins: the commands that had ended by then.
  struct Moment {
    u64 ended;
  };
  Moment now() const { return {ended_}; }
  // Whether nothing can have taken bits away between the moment and now.
  bool kept_since(Moment moment) const { return overlapping(moment) == 0; }
  // Where one command took bits away meanwhile, each extent is marked behind it or told by it.
  void add(Moment began, const Extents& extents) {
    if (kept_since(began)) {
      must_ |= extents;
    } else if (overlapping(began) == 1) {
      (running_ == 0 ? must_ : unsettled_) |= extents & ~told_;
    }
  }
  const Extents& must() const { return must_; }

  // A command that takes bits away does so somewhere between its two ends.
  struct Taking {
    u64 number;
    bool is_alone;
    Extents taken;
  };
  Taking begin_taking() {
    const bool is_alone = running_++ == 0;
    unsettled_.reset();
    told_.reset();
    return {++begun_, is_alone, std::exchange(must_, {})};
  }
  bool is_alone(const Taking& taking) const { return taking.is_alone && taking.number == begun_; }
  // `left` is what the bitmap holds behind the command, where nobody else takes: all that it held for one that
  // was refused. `told` is what its caller has seen of what it took, which is in no bitmap any more.
  void end_taking(const Taking& taking, const Extents& left, const Extents& told) {
    --running_;
    ++ended_;
    if (taking.number != begun_) {
      told_.set();  // by which of the two, nobody knows
      return;
    }
    if (taking.is_alone) must_ |= left;
    must_ |= unsettled_ & ~told;
    told_ = told;
  }

 private:
  u64 overlapping(Moment moment) const { return begun_ - moment.ended; }

  Extents must_;
  Extents told_;       // by the last that began, once it has ended; none while it runs
  Extents unsettled_;  // marked while it runs, and nothing else does
  u64 begun_ = 0;
  u64 ended_ = 0;
  int running_ = 0;
};

}  // namespace snbf::fuzz
