// stimer.cpp: the timer thread.
#include <quenlib/stimer.h>

#include "diagnostics/trace.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <exception>

namespace QuenLibA500 {

namespace {
constexpr unsigned long kTimerSlackNs = 1000;
}  // namespace

STimer::~STimer() {
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_quit = true;
    m_armed = false;
    ++m_generation;
    m_changed.notify_all();
  }
  if (m_thread.joinable()) m_thread.join();
}

bool STimer::startOnce(DWORD ms, Callback fn) { return arm(ms, 0, std::move(fn)); }

bool STimer::startPeriodic(DWORD ms, Callback fn) {
  if (ms == 0) return false;
  return arm(ms, ms, std::move(fn));
}

bool STimer::arm(DWORD ms, DWORD period, Callback fn) {
  if (!fn) return false;
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_thread.joinable()) {
    try {
      m_thread = std::thread(&STimer::threadMain, this);
    } catch (std::system_error const& e) {
      QL_TRACE_ERROR("STimer: cannot create the timer thread: %1", e.what());
      return false;
    }
  }
  m_callback = std::move(fn);
  m_period = std::chrono::milliseconds(period);
  m_due = Clock::now() + std::chrono::milliseconds(ms);
  m_armed = true;
  ++m_generation;
  m_changed.notify_all();
  return true;
}

void STimer::cancel() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_armed = false;
  ++m_generation;
  m_changed.notify_all();
  // The timer thread cancelling from inside its callback must not wait
  // for itself.
  if (std::this_thread::get_id() == m_thread.get_id()) return;
  m_changed.wait(lock, [this] { return !m_running; });
}

bool STimer::isActive() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_armed;
}

uint64_t STimer::getFireCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_fired;
}

void STimer::threadMain() {
  pthread_setname_np(pthread_self(), "qltimer");
  // The kernel may delay a sleeping thread's wake-up by its timer slack
  // (50 us by default) to batch wake-ups; a timer thread wants it small.
  prctl(PR_SET_TIMERSLACK, kTimerSlackNs);
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_quit) {
    if (!m_armed) {
      m_changed.wait(lock);
      continue;
    }
    if (Clock::now() < m_due) {
      m_changed.wait_until(lock, m_due);
      continue;  // woken early, re-armed or cancelled: look again
    }
    fire(lock);
  }
}

// Calls the callback without the lock held, then schedules the next call
// unless the timer was started again or cancelled meanwhile.
void STimer::fire(std::unique_lock<std::mutex>& lock) {
  uint64_t const generation = m_generation;
  Callback const callback = m_callback;  // a restart from inside may replace it
  m_running = true;
  ++m_fired;
  if (m_period.count() == 0) m_armed = false;
  lock.unlock();
  try {
    callback();
  } catch (std::exception const& e) {
    QL_TRACE_ERROR("STimer: the callback threw: %1", e.what());
  } catch (...) {
    QL_TRACE_ERROR("STimer: the callback threw a non-standard exception");
  }
  lock.lock();
  m_running = false;
  m_changed.notify_all();
  if (generation != m_generation || m_period.count() == 0) return;
  m_due += m_period;
  Clock::time_point const now = Clock::now();
  if (m_due <= now) {
    auto const behind = (now - m_due) / m_period + 1;  // whole periods missed
    m_due += behind * m_period;
  }
}

}  // namespace QuenLibA500
