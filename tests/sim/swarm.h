// What one run of the swarm is made of: which people are about, what breaks, and how its lives end.
// Each seed switches about half of it on: what is always there hides what happens without it.
//
// A plan is a line of text and back, so that a failing run can be repeated, and cut down, by hand or
// by tools/simulate:  seed=7 on=agent,snaps,full steps=20 lives=2
#pragma once

#include <cstdint>
#include <string>

namespace snbf::rig {

enum class Trait : unsigned {
  Agent,        // takes, clears, merges and loads bitmaps
  Saver,        // saves them
  Openers,      // open and close the node
  Snaps,        // makes, starts, stops and deletes snaps
  Readers,      // of the origin and of the snaps
  Files,        // a file system is mounted on the node, in the first life
  Below,        // the store lies on another node
  Restarts,     // the node is stopped, deleted and made again among requests
  Reload,       // the driver is loaded anew between lives
  Cut,          // the power goes in the midst of a life
  OddCommands,  // commands that make no sense, from a process that gets every one of them refused
  Procfs,       // reads all of /proc/snbf
  FileFaults,   // calls of the file routines fail
  NoMemory,     // allocations fail
  StoreFails,   // the store's device fails
  DiskFails,    // the partition fails
  StoreFull,
  Stall,     // the store's device answers nothing for long
  BioBased,  // the partition cannot be drained
  Slow,      // so is the partition
  Hurry,     // commands come without a pause
  Map,       // the partition holds block bitmaps, which say what a snap need not keep
  InPlace,   // requests end within their submission
  Torn,      // what fails has done a part all the same
  SyncLoss,  // syncs of files fail, and what they were to write is lost
  Aborts,    // the store's journal fails: it can only be read
  kCount,
};

struct Plan {
  std::uint64_t seed = 1;
  std::uint32_t traits = 0;  // a bit each
  int steps = 16;            // of each person in a life
  int lives = 2;

  bool has(Trait trait) const { return (traits >> static_cast<unsigned>(trait) & 1) != 0; }
};

Plan plan_of_seed(std::uint64_t seed);
std::string to_text(const Plan& plan);
// False: it is no plan.
bool parse_plan(const std::string& text, Plan* plan);

}  // namespace snbf::rig
