// critsec.cpp: the recursive critical section.
#include <quenlib/critsec.h>

namespace QuenLibA500 {

void SCriticalSection::enter() {
  m_mutex.lock();
  m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
  ++m_depth;
}

bool SCriticalSection::tryEnter() {
  if (!m_mutex.try_lock()) return false;
  m_owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
  ++m_depth;
  return true;
}

void SCriticalSection::leave() {
  if (--m_depth == 0) m_owner.store(std::thread::id(), std::memory_order_relaxed);
  m_mutex.unlock();
}

uint32_t SCriticalSection::getRecursionCount() const {
  if (m_owner.load(std::memory_order_relaxed) != std::this_thread::get_id()) return 0;
  return m_depth;
}

}  // namespace QuenLibA500
