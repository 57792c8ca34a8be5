// The files of the small platform: bytes by path, without folders.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace snbf::fuzz {

struct FuzzFiles {
  std::map<std::string, std::vector<uint8_t>> bytes;
  unsigned fails_at = 0;        // the n-th opening, read or write from now on fails; 0: none does
  unsigned call_bytes_max = 0;  // of one read or write; 0: any number
  unsigned open = 0;
};
extern FuzzFiles files;

}  // namespace snbf::fuzz
