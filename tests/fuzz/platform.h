// A platform for parts of the driver, small enough for a fuzzer: memory from the heap, everything
// at once and in the caller's thread, so that whoever would wait has found a deadlock.
#pragma once

#include <cstddef>
#include <cstdint>

namespace snbf::fuzz {

// Ends the program: the input has found something.
[[noreturn]] void stop(const char* why);

// What the driver may hold at once, in bytes; more ends the program.
extern uint64_t memory_max;
// Bytes that the driver holds, and the most that it has held.
uint64_t live_memory();
uint64_t peak_memory();
// Ends the program when anything is left over.
void expect_no_memory();

void* take_memory(size_t bytes);
void give_memory(void* block);

}  // namespace snbf::fuzz
