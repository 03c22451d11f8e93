// critsec.h: a recursive critical section and its scoped locker.
//
// `SCriticalSection` is a mutex that the thread holding it may enter again;
// it is released when that thread has left it as often as it entered.
// `SCritSecLocker` enters in its constructor and leaves in its destructor,
// so every path out of a scope releases the section:
//
//   QuenLibA500::SCriticalSection guard;
//   void add(Item const& item) {
//     QuenLibA500::SCritSecLocker lock(guard);
//     items.push_back(item);          // may call add() again: recursive
//   }
//
// `tryEnter` enters only when no other thread holds the section. Neither
// class can be copied.
#pragma once

#include <quenlib/quenlib_export.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

namespace QuenLibA500 {

class QUENLIB_API SCriticalSection {
 public:
  SCriticalSection() = default;
  SCriticalSection(SCriticalSection const&) = delete;
  SCriticalSection& operator=(SCriticalSection const&) = delete;

  // Waits until the section is free or already held by this thread.
  void enter();
  // Enters without waiting; false when another thread holds the section.
  bool tryEnter();
  // Leaves once; the holder must call it once per enter.
  void leave();
  // How deep the calling thread has entered (0 when it does not hold it).
  uint32_t getRecursionCount() const;

 private:
  std::recursive_mutex m_mutex;
  // The depth is touched only by the holder; the owner is read by any
  // thread to learn whether it is the holder.
  uint32_t m_depth = 0;
  std::atomic<std::thread::id> m_owner{};
};

// Holds a critical section for the lifetime of a scope.
class QUENLIB_API SCritSecLocker {
 public:
  explicit SCritSecLocker(SCriticalSection& cs) : m_cs(&cs) { m_cs->enter(); }
  ~SCritSecLocker() { unlock(); }
  SCritSecLocker(SCritSecLocker const&) = delete;
  SCritSecLocker& operator=(SCritSecLocker const&) = delete;

  // Leaves early; the destructor then does nothing.
  void unlock() {
    if (m_cs == nullptr) return;
    m_cs->leave();
    m_cs = nullptr;
  }

 private:
  SCriticalSection* m_cs;
};

}  // namespace QuenLibA500
