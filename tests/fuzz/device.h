// The block device of the small platform: the only one there is.
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
  int fd = -1;         // of a file that is read in place of the pages
  Pages damage;        // over it
  uint64_t reads = 0;  // so far, and how many are too many
  uint64_t reads_max = 0;
};
extern FuzzDevice device;

// The pages of a sparse file that a shell command makes; "@" in it is the file's path.
Pages make_base(uint64_t bytes, const std::string& command);

}  // namespace snbf::fuzz
