#include "fiber.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#if SNBF_SIM_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

static_assert(sizeof(void*) == 8, "the switch below is written for x86-64");

extern "C" void snbf_sim_switch(void** save_sp, void* new_sp);

// Callee-saved registers and the two floating point control words; everything else is the caller's.
asm(R"(
.text
.p2align 4
.globl snbf_sim_switch
.type snbf_sim_switch,@function
snbf_sim_switch:
  pushq %rbp
  pushq %rbx
  pushq %r12
  pushq %r13
  pushq %r14
  pushq %r15
  subq $8, %rsp
  stmxcsr (%rsp)
  fnstcw 4(%rsp)
  movq %rsp, (%rdi)
  movq %rsi, %rsp
  ldmxcsr (%rsp)
  fldcw 4(%rsp)
  addq $8, %rsp
  popq %r15
  popq %r14
  popq %r13
  popq %r12
  popq %rbx
  popq %rbp
  ret
.size snbf_sim_switch,.-snbf_sim_switch
)");

#if SNBF_SIM_ASAN
// Tasks that a fatal end or a power cut stops keep what their stacks own; the kernel has its own
// check for what the driver leaves over.
extern "C" const char* __asan_default_options() {
  return "detect_leaks=0:detect_stack_use_after_return=0:abort_on_error=1";
}
#endif

namespace snbf::sim {

namespace {

constexpr std::size_t kPage = 4096;
constexpr unsigned char kPaint = 0xA5;

// Never given back: one process makes many kernels.
std::vector<char*>& spare_stacks() {
  static std::vector<char*> stacks;
  return stacks;
}

char* take_stack() {
  auto& spare = spare_stacks();
  if (!spare.empty()) {
    char* low = spare.back();
    spare.pop_back();
    return low;
  }
  void* area = mmap(nullptr, kStackBytes + kPage, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (area == MAP_FAILED) abort();
  mprotect(area, kPage, PROT_NONE);
  char* low = static_cast<char*>(area) + kPage;
#if !SNBF_SIM_ASAN
  memset(low, kPaint, kStackBytes);
#endif
  return low;
}

struct InitialFrame {
  std::uint32_t mxcsr;
  std::uint32_t fpu;
  void* registers[6];
  void (*entry)();
  void* no_return;
};

}  // namespace

void Fiber::create(void (*entry)()) {
  low = take_stack();
  bytes = kStackBytes;
#if SNBF_SIM_ASAN
  __asan_unpoison_memory_region(low, bytes);
#endif
  auto top = reinterpret_cast<std::uintptr_t>(low + bytes);
  // `ret` must leave the stack as a call does: a multiple of 16, less 8.
  auto* frame = reinterpret_cast<InitialFrame*>(top - 16 - sizeof(InitialFrame));
  static_assert(sizeof(InitialFrame) % 16 == 8);
  memset(static_cast<void*>(frame), 0, sizeof(*frame));
  frame->mxcsr = 0x1F80;
  frame->fpu = 0x37F;
  frame->entry = entry;
  sp = frame;
  fake_stack = nullptr;
}

std::size_t Fiber::deepest() const {
  if (SNBF_SIM_ASAN || low == nullptr) return 0;
  std::size_t untouched = 0;
  while (untouched < bytes && static_cast<unsigned char>(low[untouched]) == kPaint) ++untouched;
  return bytes - untouched;
}

void Fiber::destroy() {
  if (low == nullptr) return;
#if !SNBF_SIM_ASAN
  const std::size_t used = deepest();
  memset(low + bytes - used, kPaint, used);
#endif
  spare_stacks().push_back(low);
  low = nullptr;
}

#if SNBF_SIM_ASAN
void switch_fiber(Fiber& from, Fiber& to, bool dying) {
  __sanitizer_start_switch_fiber(dying ? nullptr : &from.fake_stack, to.low, to.bytes);
  snbf_sim_switch(&from.sp, to.sp);
  __sanitizer_finish_switch_fiber(from.fake_stack, nullptr, nullptr);
}

void begin_fiber(Fiber& from) {
  const void* low = nullptr;
  std::size_t bytes = 0;
  __sanitizer_finish_switch_fiber(nullptr, &low, &bytes);
  if (from.low == nullptr) {
    from.low = const_cast<char*>(static_cast<const char*>(low));
    from.bytes = bytes;
  }
}
#else
void switch_fiber(Fiber& from, Fiber& to, bool) { snbf_sim_switch(&from.sp, to.sp); }
void begin_fiber(Fiber&) {}
#endif

}  // namespace snbf::sim
