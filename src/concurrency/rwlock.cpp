// rwlock.cpp: the waiting side of the reader-writer lock.
//
// The fast paths in the header handle the uncontended cases on the state
// word alone. Everything that waits goes through m_mutex, and every flag
// that makes a releasing thread come here (kWriterWaiting, kReaderWaiting)
// is set under m_mutex before the waiter looks at the state, so a release
// either is seen by the waiter's check or sees the flag and notifies.
#include <quenlib/rwlock.h>

#include "concurrency/deadline.h"

#include <algorithm>

namespace QuenLibA500 {

using concurrency::Deadline;

// Under m_mutex. A reader enters when no writer is inside, and either no
// writer waits or a writer's release granted the waiting readers a turn.
bool SRWLock::tryEnterGranted() {
  uint32_t s = m_state.load(std::memory_order_relaxed);
  for (;;) {
    if ((s & kWriter) != 0) return false;
    if ((s & kWriterWaiting) != 0 && m_readerGrants == 0) return false;
    if (m_state.compare_exchange_weak(s, s + 1, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
      if (m_readerGrants > 0) --m_readerGrants;
      return true;
    }
  }
}

// Under m_mutex. A writer enters when nobody is inside and no granted
// reader is still on its way in.
bool SRWLock::tryEnterWriter() {
  if (m_readerGrants > 0) return false;
  uint32_t s = m_state.load(std::memory_order_relaxed);
  for (;;) {
    if ((s & (kWriter | kReaderMask)) != 0) return false;
    if (m_state.compare_exchange_weak(s, s | kWriter, std::memory_order_acquire,
                                      std::memory_order_relaxed))
      return true;
  }
}

bool SRWLock::slowLockRead(DWORD ms) {
  if (ms == 0) return false;
  Deadline const deadline(ms);
  std::unique_lock<std::mutex> lock(m_mutex);
  if (m_waitingReaders++ == 0) m_state.fetch_or(kReaderWaiting);
  bool got = tryEnterGranted();
  while (!got) {
    if (!deadline.wait(m_readersCv, lock)) {
      got = tryEnterGranted();
      break;
    }
    got = tryEnterGranted();
  }
  if (--m_waitingReaders == 0) m_state.fetch_and(~kReaderWaiting);
  // Grants never outnumber the readers waiting for them; when the last one
  // lapses (a reader gave up), the writers stop waiting for it.
  uint32_t const grantsBefore = m_readerGrants;
  m_readerGrants = std::min(m_readerGrants, m_waitingReaders);
  if (grantsBefore > 0 && m_readerGrants == 0 && m_waitingWriters > 0) m_writersCv.notify_all();
  return got;
}

bool SRWLock::slowLockWrite(DWORD ms) {
  if (ms == 0) return false;
  Deadline const deadline(ms);
  std::unique_lock<std::mutex> lock(m_mutex);
  if (m_waitingWriters++ == 0) m_state.fetch_or(kWriterWaiting);
  bool got = tryEnterWriter();
  while (!got) {
    if (!deadline.wait(m_writersCv, lock)) {
      got = tryEnterWriter();
      break;
    }
    got = tryEnterWriter();
  }
  if (--m_waitingWriters == 0) {
    m_state.fetch_and(~kWriterWaiting);
    // Readers held back only for this writer may go in now.
    if (!got && m_waitingReaders > 0) m_readersCv.notify_all();
  }
  return got;
}

// The last reader left while a writer waits.
void SRWLock::wakeWriters() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_writersCv.notify_all();
}

// A writer left while others wait: the readers waiting now go first, then
// the next writer.
void SRWLock::handOver() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_waitingReaders > 0) {
    m_readerGrants = m_waitingReaders;
    m_readersCv.notify_all();
    return;
  }
  if (m_waitingWriters > 0) m_writersCv.notify_all();
}

}  // namespace QuenLibA500
