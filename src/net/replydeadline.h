// replydeadline.h (internal): a time-out in whole seconds that bounds a
// whole line or reply, spent by the waits inside it. A peer that drips a
// byte or a continuation line now and then cannot hold a read past it.
#pragma once

#include <chrono>

namespace QuenLibA500 {

class ReplyDeadline {
 public:
  using Clock = std::chrono::steady_clock;
  explicit ReplyDeadline(int seconds) : m_seconds(seconds), m_at(Clock::now() + std::chrono::seconds(seconds)) {}

  // What the next wait may take: the time-out itself when it is not
  // positive (no wait, or no limit); else the seconds left, rounded up, and
  // 0 once the deadline has passed.
  int left() const {
    if (m_seconds <= 0) return m_seconds;
    auto const rest = m_at - Clock::now();
    if (rest <= Clock::duration::zero()) return 0;
    return static_cast<int>(std::chrono::ceil<std::chrono::seconds>(rest).count());
  }
  bool passed() const { return m_seconds > 0 && left() == 0; }

 private:
  int m_seconds;
  Clock::time_point m_at;
};

}  // namespace QuenLibA500
