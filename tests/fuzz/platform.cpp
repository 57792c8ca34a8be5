#include "platform.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/log.h"
#include "platform/memory.h"
#include "platform/sync.h"
#include "platform/task.h"

namespace snbf::fuzz {

uint64_t memory_max = ~uint64_t{0};

namespace {

uint64_t live_bytes = 0;
uint64_t peak_bytes = 0;

// The size stands in front of each block.
constexpr size_t kHeaderBytes = 16;

}  // namespace

void stop(const char* why) {
  fprintf(stderr, "fuzz: %s\n", why);
  abort();
}

uint64_t live_memory() { return live_bytes; }
uint64_t peak_memory() { return peak_bytes; }

void expect_no_memory() {
  if (live_bytes == 0) return;
  fprintf(stderr, "fuzz: %llu bytes are left over\n", static_cast<unsigned long long>(live_bytes));
  abort();
}

void* take_memory(size_t bytes) {
  live_bytes += bytes;
  peak_bytes = std::max(peak_bytes, live_bytes);
  if (live_bytes > memory_max) stop("more memory than the input warrants");
  uint8_t* block = static_cast<uint8_t*>(malloc(bytes + kHeaderBytes));
  memcpy(block, &bytes, sizeof(bytes));
  return block + kHeaderBytes;
}

void give_memory(void* block) {
  if (block == nullptr) return;
  uint8_t* begin = static_cast<uint8_t*>(block) - kHeaderBytes;
  size_t bytes = 0;
  memcpy(&bytes, begin, sizeof(bytes));
  live_bytes -= bytes;
  free(begin);
}

}  // namespace snbf::fuzz

using snbf::fuzz::give_memory;
using snbf::fuzz::stop;
using snbf::fuzz::take_memory;

extern "C" {

int snbf_debug = 4;
int snbf_blk_major = 100;

// The text is made, for the sanitizers to look at, and dropped, but for somebody who looks into one input.
void snbf_log(int, const char* format, ...) {
  char line[4096];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof(line), format, arguments);
  va_end(arguments);
  static const bool is_told = getenv("SNBF_FUZZ_LOG") != nullptr;
  if (is_told) fprintf(stderr, "%s\n", line);
}

void snbf_plat_bug(const char* file, int line, const char* what) {
  fprintf(stderr, "%s:%d: %s\n", file, line, what);
  abort();
}

void snbf_sim_point() {}

void* snbf_plat_heap_alloc(plat_size bytes, plat_alloc_mode) { return take_memory(bytes); }
void snbf_plat_heap_free(void* block) { give_memory(block); }
void* snbf_plat_virt_alloc(plat_size bytes) {
  void* area = take_memory(bytes);
  memset(area, 0, bytes);
  return area;
}
void snbf_plat_virt_free(void* area) { give_memory(area); }
void* snbf_plat_page_alloc(plat_alloc_mode) { return take_memory(4096); }
void snbf_plat_page_free(void* page) { give_memory(page); }

// There are no callers with memory of their own.
plat_size snbf_plat_copy_from_user(void*, plat_u64, plat_size bytes) { return bytes; }
plat_user_pin* snbf_plat_user_pin(plat_u64, plat_size, int) { return nullptr; }
plat_size snbf_plat_user_pinned_bytes(const plat_user_pin*) { return 0; }
void snbf_plat_user_pin_write(plat_user_pin*, plat_size, const void*, plat_size) {}
void snbf_plat_user_pin_read(plat_user_pin*, plat_size, void*, plat_size) {}
void snbf_plat_user_unpin(plat_user_pin*) {}

void snbf_plat_completion_init(plat_completion* completion) { completion->opaque[0] = 0; }
void snbf_plat_complete(plat_completion* completion) { completion->opaque[0] = 1; }
void snbf_plat_completion_wait(plat_completion* completion) {
  if (completion->opaque[0] == 0) stop("a wait that would never end");
}

void snbf_plat_spin_init(plat_spin* lock, const char*) { lock->opaque[0] = 0; }
void snbf_plat_spin_lock(plat_spin* lock) {
  if (lock->opaque[0]++ != 0) stop("a spin lock that is taken twice");
}
void snbf_plat_spin_unlock(plat_spin* lock) {
  if (lock->opaque[0]-- != 1) stop("a spin lock that was not taken");
}
void snbf_plat_sem_init(plat_semaphore* sem, int count) {
  sem->opaque[0] = static_cast<plat_u64>(count);
}
void snbf_plat_sem_down(plat_semaphore* sem) {
  if (sem->opaque[0]-- == 0) stop("a semaphore that would never come free");
}
unsigned snbf_plat_serve_writes_begin(void) { return 0; }
void snbf_plat_serve_writes_end(unsigned) {}
int snbf_plat_sem_try_down(plat_semaphore* sem) {
  if (sem->opaque[0] == 0) return 0;
  --sem->opaque[0];
  return 1;
}
void snbf_plat_sem_up(plat_semaphore* sem) { ++sem->opaque[0]; }
void snbf_plat_waitq_init(plat_waitq*) {}
void snbf_plat_wait_prepare(plat_waitq*, plat_wait_entry*, int) {}
void snbf_plat_wait_sleep() { stop("a wait that would never end"); }
void snbf_plat_wait_sleep_ms(plat_u32) { stop("a wait for somebody else"); }
void snbf_plat_wait_finish(plat_waitq*, plat_wait_entry*) {}
void snbf_plat_wake(plat_waitq*) {}

plat_task* snbf_plat_task_current() {
  static char me;
  return reinterpret_cast<plat_task*>(&me);
}
void snbf_plat_task_get(plat_task*) {}
void snbf_plat_task_put(plat_task*) {}
int snbf_plat_in_interrupt() { return 0; }
void snbf_plat_might_sleep() {}
plat_u64 snbf_plat_ticks_ms() { return 0; }
void snbf_plat_yield() {}
void snbf_plat_sleep_ms(plat_u32) {}

}  // extern "C"
