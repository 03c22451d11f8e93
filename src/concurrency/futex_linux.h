// futex_linux.h (internal): waiting on a 32-bit word with the kernel's
// futex, the primitive beneath the semaphore. Waits are bounded by a point
// on the monotonic clock, so a changed wall clock does not move them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace QuenLibA500::concurrency {

// Sleeps while word holds expected, until woken or until deadline (none
// when forever). Returns false only when the deadline passed.
bool FutexWait(std::atomic<int32_t>& word, int32_t expected, bool forever,
               std::chrono::steady_clock::time_point deadline);
// Wakes up to count sleepers of word.
void FutexWake(std::atomic<int32_t>& word, int32_t count);

}  // namespace QuenLibA500::concurrency
