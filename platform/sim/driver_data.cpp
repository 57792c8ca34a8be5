#include "driver_data.h"

#include <cstddef>
#include <vector>

#if defined(__GNUC__)
#define NO_SANITIZE __attribute__((no_sanitize("address", "undefined"), noinline))
#endif

extern "C" {
extern char snbf_driver_data_start[] __attribute__((weak));
extern char snbf_driver_data_end[] __attribute__((weak));
}

namespace snbf::sim {

namespace {

// Between the variables lie the sanitizer's red zones: no library routine may copy this.
NO_SANITIZE void copy_raw(char* to, const char* from, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; ++i) {
    *const_cast<volatile char*>(to + i) = *const_cast<const volatile char*>(from + i);
  }
}

}  // namespace

bool can_reset_driver_data() {
  char* volatile start = snbf_driver_data_start;
  return start != nullptr && snbf_driver_data_end != start;
}

void reset_driver_data() {
  if (!can_reset_driver_data()) return;
  static std::vector<char> fresh;
  const auto bytes = static_cast<std::size_t>(snbf_driver_data_end - snbf_driver_data_start);
  if (fresh.empty()) {
    fresh.resize(bytes);
    copy_raw(fresh.data(), snbf_driver_data_start, bytes);
    return;
  }
  copy_raw(snbf_driver_data_start, fresh.data(), bytes);
}

}  // namespace snbf::sim
