// rwlock.h: a reader-writer lock with scoped lockers and timed attempts.
//
// `SRWLock` lets any number of readers in together, or one writer alone.
// `SRWReadLocker` and `SRWWriteLocker` take the lock in their constructor
// and release it when they leave scope:
//
//   QuenLibA500::SRWLock tableLock;
//   int find(int key) {
//     QuenLibA500::SRWReadLocker read(tableLock);
//     return table.at(key);
//   }
//   void store(int key, int value) {
//     QuenLibA500::SRWWriteLocker write(tableLock);
//     table[key] = value;
//   }
//
// Timed attempts wait at most the given milliseconds (0 tries once,
// kWaitForever waits without end) and say whether they got the lock:
//
//   QuenLibA500::SRWWriteLocker write(tableLock, 250);
//   if (!write.isLocked()) return false;   // busy for 250 ms
//
// Fairness: a writer that is waiting stops new readers from entering, so a
// steady stream of readers cannot starve it; it gets the lock as soon as the
// readers inside have left. When a writer releases the lock, the readers
// that were waiting at that moment go in before the next writer, so a
// stream of writers cannot starve readers either. Uncontended read and write
// locking is one atomic operation each way.
//
// The lock is not recursive: a thread that holds it (either way) and asks
// again may wait forever. It cannot be copied.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace QuenLibA500 {

class QUENLIB_API SRWLock {
 public:
  SRWLock() = default;
  SRWLock(SRWLock const&) = delete;
  SRWLock& operator=(SRWLock const&) = delete;

  void lockRead() {
    if (!tryFastRead()) slowLockRead(kWaitForever);
  }
  // True when the read lock was got within ms milliseconds.
  bool tryLockRead(DWORD ms = 0) { return tryFastRead() || slowLockRead(ms); }
  void unlockRead() {
    uint32_t const before = m_state.fetch_sub(1, std::memory_order_release);
    if ((before & kReaderMask) == 1 && (before & kWriterWaiting) != 0) wakeWriters();
  }

  void lockWrite() {
    if (!tryFastWrite()) slowLockWrite(kWaitForever);
  }
  // True when the write lock was got within ms milliseconds.
  bool tryLockWrite(DWORD ms = 0) { return tryFastWrite() || slowLockWrite(ms); }
  void unlockWrite() {
    uint32_t const before = m_state.fetch_and(~kWriter, std::memory_order_release);
    if ((before & (kWriterWaiting | kReaderWaiting)) != 0) handOver();
  }

 private:
  // The state word: readers inside (low bits) and three flags.
  static constexpr uint32_t kWriter = 1u << 31;         // a writer is inside
  static constexpr uint32_t kWriterWaiting = 1u << 30;  // new readers must wait
  static constexpr uint32_t kReaderWaiting = 1u << 29;  // a release must wake someone
  static constexpr uint32_t kReaderMask = kReaderWaiting - 1;

  bool tryFastRead() {
    uint32_t s = m_state.load(std::memory_order_relaxed);
    while ((s & (kWriter | kWriterWaiting)) == 0) {
      if (m_state.compare_exchange_weak(s, s + 1, std::memory_order_acquire,
                                        std::memory_order_relaxed))
        return true;
    }
    return false;
  }
  bool tryFastWrite() {
    uint32_t expected = 0;
    return m_state.compare_exchange_strong(expected, kWriter, std::memory_order_acquire,
                                           std::memory_order_relaxed);
  }

  bool slowLockRead(DWORD ms);
  bool slowLockWrite(DWORD ms);
  bool tryEnterGranted();
  bool tryEnterWriter();
  void wakeWriters();
  void handOver();

  std::atomic<uint32_t> m_state{0};
  // The waiting side, guarded by m_mutex.
  std::mutex m_mutex;
  std::condition_variable m_readersCv;
  std::condition_variable m_writersCv;
  uint32_t m_waitingReaders = 0;
  uint32_t m_waitingWriters = 0;
  uint32_t m_readerGrants = 0;  // waiting readers let in past waiting writers
};

// Holds the read side of an SRWLock for a scope.
class QUENLIB_API SRWReadLocker {
 public:
  explicit SRWReadLocker(SRWLock& lock) : m_lock(&lock) { lock.lockRead(); }
  // Waits at most ms milliseconds; see isLocked.
  SRWReadLocker(SRWLock& lock, DWORD ms) : m_lock(lock.tryLockRead(ms) ? &lock : nullptr) {}
  ~SRWReadLocker() { unlock(); }
  SRWReadLocker(SRWReadLocker const&) = delete;
  SRWReadLocker& operator=(SRWReadLocker const&) = delete;

  bool isLocked() const { return m_lock != nullptr; }
  // Releases early; the destructor then does nothing.
  void unlock() {
    if (m_lock == nullptr) return;
    m_lock->unlockRead();
    m_lock = nullptr;
  }

 private:
  SRWLock* m_lock;
};

// Holds the write side of an SRWLock for a scope.
class QUENLIB_API SRWWriteLocker {
 public:
  explicit SRWWriteLocker(SRWLock& lock) : m_lock(&lock) { lock.lockWrite(); }
  // Waits at most ms milliseconds; see isLocked.
  SRWWriteLocker(SRWLock& lock, DWORD ms) : m_lock(lock.tryLockWrite(ms) ? &lock : nullptr) {}
  ~SRWWriteLocker() { unlock(); }
  SRWWriteLocker(SRWWriteLocker const&) = delete;
  SRWWriteLocker& operator=(SRWWriteLocker const&) = delete;

  bool isLocked() const { return m_lock != nullptr; }
  // Releases early; the destructor then does nothing.
  void unlock() {
    if (m_lock == nullptr) return;
    m_lock->unlockWrite();
    m_lock = nullptr;
  }

 private:
  SRWLock* m_lock;
};

}  // namespace QuenLibA500
