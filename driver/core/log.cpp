// SPDX-License-Identifier: GPL-2.0-only
// Layout of the buffer's heap block: room for the longest prefix, the message of at most
// snbf_debug_buffer_size bytes with its terminator, and one byte for the newline that a line may
// lack. The last byte stays zero, so that a line is bounded even while two callers write over each
// other.
#include "core/log.h"

#include "base/errno.h"
#include "base/string.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "platform/task.h"

constinit char* snbf_debug_buffer = nullptr;
constinit int snbf_debug_buffer_size = 0;

namespace snbf {

namespace {

constexpr int kMessageBytes = 2048;
constexpr size_t kPrefixBytes = 24;

// Where a line is made while there is no memory for the buffer: it must not be lost for that.
constexpr int kSpareMessageBytes = 256;
constinit char spare_block[kPrefixBytes + kSpareMessageBytes + 1] = {};

int create_buffer(AllocMode mode) {
  if (snbf_debug_buffer != nullptr) return 0;
  snbf_debug_buffer_size = kMessageBytes;
  const size_t bytes = kPrefixBytes + kMessageBytes + 1;
  char* block = static_cast<char*>(snbf_plat_heap_alloc(bytes, mode));
  if (block == nullptr) return -ENOMEM;
  mem_set(block, 0, bytes);
  snbf_debug_buffer = block + kPrefixBytes;
  return 0;
}

// `prefix` goes right in front of the message, so that the whole line is printed by one call. Kept: no lock. Callers
// that meet here write over each other, which garbles a line and nothing else.
void print_line(char* message, int capacity, const char* prefix, const char* format,
                va_list arguments) {
  snbf_plat_races_begin();
  const int wanted = snbf_plat_vsnprintf(message, static_cast<size_t>(capacity), format, arguments);
  int length = wanted < capacity ? wanted : capacity - 1;
  if (length < 0) length = 0;
  if (length == 0 || message[length - 1] != '\n') {
    message[length] = '\n';
    message[length + 1] = '\0';
  }
  const size_t prefix_length = text_length(prefix);
  char* line = message - prefix_length;
  mem_copy(line, prefix, prefix_length);
  snbf_plat_print(line);
  snbf_plat_races_end();
}

void make_prefix(char (&prefix)[kPrefixBytes], int level) {
  if (level == kLogError) {
    text_copy(prefix, sizeof(prefix), "<3>ERROR: ");
  } else if (snbf_plat_in_interrupt()) {
    text_copy(prefix, sizeof(prefix), "<6> int: ");
  } else {
    snbf_plat_snprintf(prefix, sizeof(prefix), "<6>%04d: ", snbf_plat_task_pid());
  }
}

}  // namespace

}  // namespace snbf

extern "C" {

int snbf_debug_init() {
  return snbf::create_buffer(snbf_plat_in_interrupt() ? PLAT_ALLOC_ATOMIC : PLAT_ALLOC_NORMAL);
}

int snbf_debug_destroy() {
  if (snbf_debug_buffer != nullptr) snbf_plat_heap_free(snbf_debug_buffer - snbf::kPrefixBytes);
  snbf_debug_buffer = nullptr;
  snbf_debug_buffer_size = 0;
  return 0;
}

void snbf_log(int level, const char* format, ...) {
  // Whoever meets a missing buffer may hold a spin lock.
  if (snbf_debug_buffer == nullptr) snbf::create_buffer(PLAT_ALLOC_ATOMIC);
  if (!snbf::log_enabled(level)) return;

  char prefix[snbf::kPrefixBytes];
  snbf::make_prefix(prefix, level);
  char* message = snbf_debug_buffer;
  int capacity = snbf_debug_buffer_size;
  if (message == nullptr) {
    message = snbf::spare_block + snbf::kPrefixBytes;
    capacity = snbf::kSpareMessageBytes;
  }
  va_list arguments;
  va_start(arguments, format);
  snbf::print_line(message, capacity, prefix, format, arguments);
  va_end(arguments);
}
}
