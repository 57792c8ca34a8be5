// A platform for the readers alone, small enough for a fuzzer: memory from the heap, one device out
// of pages, everything at once and in the caller's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace snbf::fuzz {

using Page = std::vector<uint8_t>;
using Pages = std::map<uint64_t, Page>;  // by offset; what is missing is zeros

// The device that every reader reads.
struct FuzzDevice {
  uint64_t bytes = 0;
  const Pages* base = nullptr;
  Pages damage;        // over it
  uint64_t reads = 0;  // so far, and how many are too many
  uint64_t reads_max = 0;
  // What the driver may hold at once; more ends the program.
  uint64_t memory_max = 0;
};
extern FuzzDevice device;

// Bytes that the driver holds.
uint64_t live_memory();

// The pages of a sparse file that a shell command makes; "@" in it is the file's path.
Pages make_base(uint64_t bytes, const std::string& command);

}  // namespace snbf::fuzz
