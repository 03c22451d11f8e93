// ssemaphore.cpp: the counting semaphore on a futex.
//
// The count itself is the futex word. A waiter announces itself in
// m_waiters before it checks the count and sleeps only while the count is
// still 0; a releaser raises the count before it looks at m_waiters. With
// both in one total order, either the waiter sees the new count or the
// releaser sees the waiter and wakes it.
#include <quenlib/ssemaphore.h>

#include "concurrency/deadline.h"
#include "concurrency/futex_linux.h"
#include "diagnostics/assert.h"

#include <algorithm>
#include <thread>

namespace QuenLibA500 {

namespace {

// Before sleeping, spins briefly and then yields the CPU a few times: a
// partner thread that answers at once (a hand-off) is then met without a
// sleep and a wake-up, also when both share one core.
constexpr int kSpinRounds = 16;
constexpr int kYieldRounds = 4;

void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

int32_t ClampMaximum(int32_t maximum) {
  QL_ASSERT_MSG(maximum >= 1, "SSemaphore: the maximum count must be at least 1");
  return std::max<int32_t>(maximum, 1);
}

}  // namespace

SSemaphore::SSemaphore(int32_t initialCount, int32_t maximumCount)
    : m_count(0), m_maximum(ClampMaximum(maximumCount)) {
  QL_ASSERT_MSG(initialCount >= 0 && initialCount <= m_maximum,
                "SSemaphore: the initial count must lie between 0 and the maximum");
  m_count.store(std::clamp(initialCount, 0, m_maximum), std::memory_order_relaxed);
}

bool SSemaphore::tryTake() {
  int32_t c = m_count.load(std::memory_order_relaxed);
  while (c > 0) {
    if (m_count.compare_exchange_weak(c, c - 1, std::memory_order_acquire,
                                      std::memory_order_relaxed))
      return true;
  }
  return false;
}

bool SSemaphore::wait(DWORD ms) {
  if (tryTake()) return true;
  if (ms == 0) return false;
  for (int i = 0; i < kSpinRounds + kYieldRounds; ++i) {
    if (i < kSpinRounds)
      CpuRelax();
    else
      std::this_thread::yield();
    if (m_count.load(std::memory_order_relaxed) > 0 && tryTake()) return true;
  }
  concurrency::Deadline const deadline(ms);
  m_waiters.fetch_add(1, std::memory_order_seq_cst);
  bool got = false;
  for (;;) {
    if (m_count.load(std::memory_order_seq_cst) > 0 && tryTake()) {
      got = true;
      break;
    }
    if (!concurrency::FutexWait(m_count, 0, deadline.isForever(), deadline.at())) {
      got = tryTake();
      break;
    }
  }
  m_waiters.fetch_sub(1, std::memory_order_relaxed);
  return got;
}

bool SSemaphore::release(int32_t count, int32_t* previousCount) {
  if (count < 1) return false;
  int32_t c = m_count.load(std::memory_order_relaxed);
  do {
    if (c > m_maximum - count) return false;
  } while (!m_count.compare_exchange_weak(c, c + count, std::memory_order_seq_cst,
                                          std::memory_order_relaxed));
  if (previousCount != nullptr) *previousCount = c;
  if (m_waiters.load(std::memory_order_seq_cst) > 0) concurrency::FutexWake(m_count, count);
  return true;
}

}  // namespace QuenLibA500
