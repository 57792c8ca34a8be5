// Programs of commands for the whole driver, in the simulated kernel.
//
// An input is 3 bytes (callers less one in the lowest bit; the scheduler's seed) and steps of 8, as
// envelope/records.h has them. Only documented answers may come out; the simulated kernel's rules hold; a
// bitmap that is read back has what was written and not taken away since; at the end the driver unloads and
// leaves nothing.
#include <algorithm>
#include <cstring>
#include <vector>

#include "envelope/machine.h"

using namespace snbf;
using namespace snbf::fuzz;

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

namespace {

constexpr size_t kHeadBytes = 3;

std::vector<Step> steps_of(const u8* data, size_t size) {
  std::vector<Step> steps(size / kStepBytes);
  memcpy(steps.data(), data, steps.size() * kStepBytes);
  return steps;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kHeadBytes + kStepBytes) return 0;
  const u64 seed = 1 + (data[1] | static_cast<u64>(data[2]) << 8);
  Machine machine{steps_of(data + kHeadBytes, size - kHeadBytes), (data[0] & 1) != 0, seed};
  machine.run();
  return 0;
}

// Half of the time as bytes. Else another order of the callers, or whole steps: one is dropped, doubled, or
// moved to another place.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  if (size < kHeadBytes + 2 * kStepBytes || seed % 2 == 0) {
    return LLVMFuzzerMutate(data, size, max_size);
  }
  const unsigned how = seed / 2 % 4;
  seed /= 8;
  if (how == 0) {
    data[0] ^= seed % 4 == 0;
    data[1] = static_cast<uint8_t>(seed / 4);
    data[2] = static_cast<uint8_t>(seed / 1024);
    return size;
  }
  std::vector<Step> steps = steps_of(data + kHeadBytes, size - kHeadBytes);
  const size_t from = seed % steps.size();
  const size_t to = seed / steps.size() % steps.size();
  const Step step = steps[from];
  if (how != 1) steps.erase(steps.begin() + static_cast<std::ptrdiff_t>(from));
  if (how != 2) steps.insert(steps.begin() + static_cast<std::ptrdiff_t>(to), step);
  const size_t bytes = std::min(kHeadBytes + steps.size() * kStepBytes, max_size);
  memcpy(data + kHeadBytes, steps.data(), bytes - kHeadBytes);
  return bytes;
}
