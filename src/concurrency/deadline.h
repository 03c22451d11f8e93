// deadline.h (internal): a time-out in milliseconds turned into a point on
// the monotonic clock, and condition waits bounded by it.
#pragma once

#include <quenlib/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace QuenLibA500::concurrency {

class Deadline {
 public:
  explicit Deadline(DWORD ms)
      : m_forever(ms == kWaitForever),
        m_at(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms)) {}

  bool isForever() const { return m_forever; }
  std::chrono::steady_clock::time_point at() const { return m_at; }
  bool passed() const { return !m_forever && std::chrono::steady_clock::now() >= m_at; }

  // Waits for a notification; false once the deadline has passed.
  bool wait(std::condition_variable& cv, std::unique_lock<std::mutex>& lock) const {
    if (m_forever) {
      cv.wait(lock);
      return true;
    }
    return cv.wait_until(lock, m_at) == std::cv_status::no_timeout;
  }

 private:
  bool m_forever;
  std::chrono::steady_clock::time_point m_at;
};

}  // namespace QuenLibA500::concurrency
