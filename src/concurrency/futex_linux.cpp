// futex_linux.cpp: the futex calls.
#include "concurrency/futex_linux.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>

namespace QuenLibA500::concurrency {

static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t) &&
                  std::atomic<int32_t>::is_always_lock_free,
              "the futex word is a plain 32-bit integer");

namespace {

uint32_t* WordAddress(std::atomic<int32_t>& word) {
  return reinterpret_cast<uint32_t*>(&word);
}

timespec ToTimespec(std::chrono::steady_clock::time_point t) {
  auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
  timespec ts{};
  ts.tv_sec = static_cast<time_t>(ns / 1000000000);
  ts.tv_nsec = static_cast<long>(ns % 1000000000);
  return ts;
}

}  // namespace

bool FutexWait(std::atomic<int32_t>& word, int32_t expected, bool forever,
               std::chrono::steady_clock::time_point deadline) {
  // steady_clock is CLOCK_MONOTONIC on Linux, the clock FUTEX_WAIT_BITSET
  // measures absolute time-outs on by default.
  timespec const ts = ToTimespec(deadline);
  long const rc = syscall(SYS_futex, WordAddress(word), FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG,
                          static_cast<uint32_t>(expected), forever ? nullptr : &ts, nullptr,
                          FUTEX_BITSET_MATCH_ANY);
  return rc == 0 || errno != ETIMEDOUT;
}

void FutexWake(std::atomic<int32_t>& word, int32_t count) {
  syscall(SYS_futex, WordAddress(word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr, nullptr, 0);
}

}  // namespace QuenLibA500::concurrency
