// ssemaphore.h: a counting semaphore with a maximum count.
//
// `SSemaphore` holds a count between 0 and its maximum. `wait` takes one
// from the count, waiting at most the given milliseconds for it to become
// positive (0 tries once, kWaitForever waits without end), and says whether
// it got one. `release` adds to the count and wakes as many waiters; it
// refuses (returns false, count unchanged) a release that would pass the
// maximum:
//
//   QuenLibA500::SSemaphore slots(0, 8);   // initial 0, at most 8
//   // producer
//   queue.push(job);
//   slots.release();
//   // consumer
//   if (slots.wait(500)) handle(queue.pop());
//   else idle();                             // nothing for 500 ms
//
// A semaphore made with an initial count outside 0..maximum, or a maximum
// below 1, is reported as an assertion and clamped into range. It cannot be
// copied.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>

#include <atomic>
#include <cstdint>

namespace QuenLibA500 {

class QUENLIB_API SSemaphore {
 public:
  SSemaphore(int32_t initialCount, int32_t maximumCount);
  SSemaphore(SSemaphore const&) = delete;
  SSemaphore& operator=(SSemaphore const&) = delete;

  // Takes one from the count; false when ms milliseconds pass first.
  bool wait(DWORD ms = kWaitForever);
  // Adds count (>= 1); false, and nothing added, when the result would pass
  // the maximum. previousCount, when given, receives the count before.
  bool release(int32_t count = 1, int32_t* previousCount = nullptr);

  // The count at this moment (others may change it right after).
  int32_t getCount() const { return m_count.load(std::memory_order_relaxed); }
  int32_t getMaximumCount() const { return m_maximum; }

 private:
  bool tryTake();

  std::atomic<int32_t> m_count;
  std::atomic<int32_t> m_waiters{0};
  int32_t m_maximum;
};

}  // namespace QuenLibA500
