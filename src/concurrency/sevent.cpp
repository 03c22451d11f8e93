// sevent.cpp: manual- and auto-reset events.
#include <quenlib/sevent.h>

#include "concurrency/deadline.h"

namespace QuenLibA500 {

void SEvent::set() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_signalled = true;
  // One waiter takes an auto-reset event; waking more would only send the
  // others back to sleep.
  if (m_manualReset)
    m_changed.notify_all();
  else
    m_changed.notify_one();
}

void SEvent::reset() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_signalled = false;
}

bool SEvent::wait(DWORD ms) {
  concurrency::Deadline const deadline(ms);
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_signalled) {
    if (ms == 0 || !deadline.wait(m_changed, lock)) break;
  }
  if (!m_signalled) return false;
  if (!m_manualReset) m_signalled = false;
  return true;
}

bool SEvent::isSet() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_signalled;
}

}  // namespace QuenLibA500
