// What one change bitmap must hold and what it may hold, kept beside the driver.
//
// A write is known by the extents that it covers and by its two ends: when it was sent and when it was
// acknowledged. Somewhere in between the driver marks it. One agent at a time issues the commands that take bits
// away (clear, get-and-clear); such a command takes effect somewhere between its own two ends. So:
//
//   must  extents of writes that were acknowledged, or changed anything, that no such command can have taken away:
//         they are set
//   may   extents of writes that were sent before now and not certainly taken away: no other bit is set
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <vector>

namespace snbf::model {

using Extents = std::set<std::uint64_t>;

class BitmapModel {
 public:
  // A write's ticket; the caller keeps it until the write ends.
  struct Write {
    Extents extents;
    std::uint64_t sent_at;
  };

  explicit BitmapModel(std::uint64_t extent_count) : extent_count_(extent_count) {}

  std::uint64_t send(Extents extents);
  // `moved`: it was acknowledged, or has changed the partition though it failed; it was marked before it could. Else
  // it may or may not have been.
  void end(std::uint64_t ticket, bool moved);

  // A command that takes bits away. `handed_out` null: it tells nothing of what it took.
  void begin_taking();
  void end_taking(const Extents* handed_out);
  // It failed, and has taken nothing.
  void cancel_taking();

  void add(const Extents& extents);  // a merge
  void fill();                       // all ones
  // From its file, or all ones: what writes have set is there again, but what a command brought in may be in no file
  // that counts.
  void load();
  // The bitmap has gone, and a file that may lack any of it takes its place. Nobody writes.
  void lose();

  const Extents& must() const { return must_; }
  const Extents& may() const { return may_; }

 private:
  struct Taking {
    std::uint64_t began_at;
    std::uint64_t ended_at;
    bool tells;
    Extents handed_out;
  };

  void settle(const Write& write, std::uint64_t acknowledged_at);

  std::uint64_t extent_count_;
  std::uint64_t clock_ = 0;
  std::uint64_t next_ticket_ = 0;
  std::map<std::uint64_t, Write> in_flight_;
  std::vector<Taking> takings_;
  bool taking_ = false;
  std::uint64_t taking_began_at_ = 0;
  // Acknowledged while a command was taking: judged when it has told what it took.
  std::vector<std::pair<Write, std::uint64_t>> unsettled_;
  Extents failed_meanwhile_;  // of writes that failed while a command was taking
  Extents must_;
  Extents brought_;  // those of must_ that only a command has set
  Extents may_;
};

}  // namespace snbf::model
