// A stack of its own and the switch between two of them. x86-64 only, as the driver is.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define SNBF_SIM_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SNBF_SIM_ASAN 1
#endif
#endif
#ifndef SNBF_SIM_ASAN
#define SNBF_SIM_ASAN 0
#endif

namespace snbf::sim {

constexpr std::size_t kStackBytes = SNBF_SIM_ASAN ? 256 * 1024 : 64 * 1024;
// What a kernel gives a thread. The driver's depth is measured from where it was entered, and
// beyond this the run ends; sanitizers make frames larger, so there it is not measured.
constexpr std::size_t kDriverStackBytes = 16 * 1024;

struct Fiber {
  void* sp = nullptr;
  char* low = nullptr;  // of the usable stack; a guard page lies below
  std::size_t bytes = 0;
  void* fake_stack = nullptr;

  // Prepares it to begin in `entry`, which must not return. Stacks are reused.
  void create(void (*entry)());
  void destroy();
  // Deepest use since create, in bytes.
  std::size_t deepest() const;
};

// `dying`: `from` is never switched to again.
void switch_fiber(Fiber& from, Fiber& to, bool dying);
// First thing on a new fiber's stack; `from` is who switched to it.
void begin_fiber(Fiber& from);

}  // namespace snbf::sim
