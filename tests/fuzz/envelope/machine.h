// The machine that a program of commands runs on, and what is held against it.
#pragma once

#include <vector>

#include "envelope/follow.h"

namespace snbf::fuzz {

struct Geometry {
  u32 extent_bytes = 0;  // 0: there is no such filter node
  u32 bitmap_bytes = 0;
};

// 0 in all for a minor without a filter node.
Geometry geometry_of(u32 minor);

// Of the scheduler; a program that takes more goes round in circles.
constexpr u64 kStepLimit = 3'000'000;

class Machine {
 public:
  Machine(std::vector<Step> steps, bool has_two_callers, u64 seed);
  // In the calling thread; a program that breaks a rule ends the process.
  void run() {
    sim_.run([this] { live(); });
  }

 private:
  // A process: the node that it has open.
  struct Caller {
    sim::OpenNode node;
    u32 minor = 0;
    Geometry geometry;
  };
  void live();
  void take_steps(bool second);
  void take(Caller& caller, const Step& step);
  struct Sectors {
    u64 first, count;
  };
  Sectors sectors_of(const Caller& caller, const Step& step);
  void tick(const Step& step);
  void open(Caller& caller, const Step& step);
  void close(Caller& caller);
  void write(Caller& caller, const Step& step);
  void read(Caller& caller, const Step& step);
  void reload();
  void set_fault(const Step& step);
  void look();
  void look_at(u32 minor, u32 type);
  void take_nodes_down();
  // Of every bitmap of every node.
  std::vector<Marks::Taking> begin_taking_all();
  void end_taking_all(const std::vector<Marks::Taking>& takings, bool all_is_left);

  void command(const Step& step, u32 number);
  Call call_of(const Step& step, u32 number, const Placed& buffer, s64 size);
  s64 size_of(const Step& step, u32 number);
  int send(const Step& step, const Call& call);
  int send_and_follow(const Step& step, const Call& call, const Placed& buffer);
  void release_table(size_t first_line);
  void need(bool holds, const char* what, int detail = 0);

  sim::Sim sim_;
  std::vector<Step> steps_;
  bool has_two_;
  bool has_faults_;  // in some step
  bool is_loading_ = false;
  int busy_ = 0;  // callers in the middle of a step
  NodeMarks marks_[kHighestMinor + 1];
};

}  // namespace snbf::fuzz
