// stimer.h: one-shot and periodic timers that call a function.
//
// An `STimer` owns one timer thread (named "qltimer", started on the first
// `start`). `startOnce(ms, fn)` calls fn once, ms milliseconds from now;
// `startPeriodic(ms, fn)` calls it every ms milliseconds until cancelled.
// Starting an armed timer again replaces its schedule and function.
//
//   QuenLibA500::STimer heartbeat;
//   heartbeat.startPeriodic(1000, [&] { sendHeartbeat(); });
//   ...
//   heartbeat.cancel();      // after this, sendHeartbeat is not running
//                            // and will not be called again
//
// `cancel` disarms the timer and, when the callback is running on the timer
// thread at that moment, waits until it has returned, so the caller may
// free what the callback uses. A callback may cancel or restart its own
// timer (cancel then does not wait for itself). The destructor cancels and
// ends the timer thread, so a timer must not be destroyed by its own
// callback.
//
// Periodic timers keep their rate: each call is due one period after the
// previous due time, not after the previous call ended; periods missed
// because a callback ran long are skipped, not made up in a burst.
// A callback that throws is traced as an error and the timer goes on.
// Calls never come early; how late they come is measured in
// docs/concurrency.md (40 to 60 us on average on a shared 2-core machine).
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace QuenLibA500 {

class QUENLIB_API STimer {
 public:
  using Callback = std::function<void()>;

  STimer() = default;
  ~STimer();
  STimer(STimer const&) = delete;
  STimer& operator=(STimer const&) = delete;

  // Calls fn once after ms milliseconds. False when fn is empty or the
  // timer thread cannot be created.
  bool startOnce(DWORD ms, Callback fn);
  // Calls fn every ms milliseconds (ms >= 1). False when fn is empty, ms is
  // 0 or the timer thread cannot be created.
  bool startPeriodic(DWORD ms, Callback fn);
  // Disarms; waits for a running callback unless called from it.
  void cancel();
  // Armed (a call is still due)?
  bool isActive() const;
  // Calls made since construction.
  uint64_t getFireCount() const;

 private:
  using Clock = std::chrono::steady_clock;

  bool arm(DWORD ms, DWORD period, Callback fn);
  void threadMain();
  void fire(std::unique_lock<std::mutex>& lock);

  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::thread m_thread;
  Callback m_callback;
  Clock::time_point m_due;
  std::chrono::milliseconds m_period{0};  // 0: one-shot
  uint64_t m_generation = 0;              // changes on every start and cancel
  uint64_t m_fired = 0;
  bool m_armed = false;
  bool m_running = false;  // the callback is being called
  bool m_quit = false;
};

}  // namespace QuenLibA500
