// sinterlocked.h: 32- and 64-bit counters changed with atomic operations.
//
// `SInterlockedInt32s` (signed) and `SInterlockedInt32u` (unsigned) are one
// 32-bit word each (`SInterlockedInt64s` and `SInterlockedInt64u` one
// 64-bit word), with the layout of a plain integer, so that they can sit
// inside records that are allocated, moved and freed as raw memory (the
// string buffers keep their reference count in one). The exchange
// operations are one atomic read-modify-write that returns the value held
// *before* the operation; `read` is a sequentially consistent load; the
// non-interlocked pair are plain accesses for set-up code that no other
// thread can see yet.
//
//   QuenLibA500::SInterlockedInt32s users(1);
//   users.exchangeInc();                     // returns 1, now 2
//   if (users.exchangeDec() == 1) free(...); // last one out frees
//   int32_t now = users.read();
//
// `compareExchange(value, comparand)` stores value only when the counter
// holds comparand, and returns what it held before either way, so the
// caller knows it won when the result equals comparand:
//
//   QuenLibA500::SInterlockedInt64u owner(0);
//   if (owner.compareExchange(myId, 0) == 0) { /* we own it */ }
#pragma once

#include <quenlib/quenlib_export.h>

#include <atomic>
#include <cstdint>

namespace QuenLibA500 {

namespace detail {

// Both counters share this implementation; T is int32_t or uint32_t.
template <class T>
class InterlockedWord {
 public:
  constexpr InterlockedWord(T v = 0) noexcept : m_value(v) {}
  // Copying takes a snapshot of the value; the copy is a new counter.
  InterlockedWord(InterlockedWord const& o) noexcept : m_value(o.read()) {}
  InterlockedWord& operator=(InterlockedWord const& o) noexcept {
    exchange(o.read());
    return *this;
  }

  // Adds d atomically; returns the value before the add.
  T exchangeAdd(T d) noexcept { return ref().fetch_add(d); }
  // Stores v atomically; returns the value before the store.
  T exchange(T v) noexcept { return ref().exchange(v); }
  // Atomic increment and decrement; return the value before the change.
  T exchangeInc() noexcept { return ref().fetch_add(1); }
  T exchangeDec() noexcept { return ref().fetch_sub(1); }
  // Stores v when the value equals comparand; returns the value before.
  T compareExchange(T v, T comparand) noexcept {
    ref().compare_exchange_strong(comparand, v);
    return comparand;
  }
  // A full-barrier (sequentially consistent) read.
  T read() const noexcept { return cref().load(std::memory_order_seq_cst); }
  // Plain accesses, for values no other thread can touch at the moment.
  T nonInterlockedRead() const noexcept {
    return cref().load(std::memory_order_relaxed);
  }
  void nonInterlockedSet(T v) noexcept {
    ref().store(v, std::memory_order_relaxed);
  }

  // Prefix forms return the new value, postfix forms the old one.
  T operator++() noexcept { return exchangeInc() + 1; }
  T operator--() noexcept { return exchangeDec() - 1; }
  T operator++(int) noexcept { return exchangeInc(); }
  T operator--(int) noexcept { return exchangeDec(); }

 private:
  std::atomic_ref<T> ref() noexcept { return std::atomic_ref<T>(m_value); }
  // Loads through atomic_ref need a non-const object; loads never write.
  std::atomic_ref<T> cref() const noexcept {
    return std::atomic_ref<T>(const_cast<T&>(m_value));
  }

  alignas(std::atomic_ref<T>::required_alignment) T m_value;
};

}  // namespace detail

// Atomic signed 32-bit counter; exchange operations return the old value.
class QUENLIB_API SInterlockedInt32s : public detail::InterlockedWord<int32_t> {
 public:
  using detail::InterlockedWord<int32_t>::InterlockedWord;
  using detail::InterlockedWord<int32_t>::operator=;
};

// Atomic unsigned 32-bit counter; the same operations, modulo 2^32.
class QUENLIB_API SInterlockedInt32u : public detail::InterlockedWord<uint32_t> {
 public:
  using detail::InterlockedWord<uint32_t>::InterlockedWord;
  using detail::InterlockedWord<uint32_t>::operator=;
};

// Atomic signed 64-bit counter.
class QUENLIB_API SInterlockedInt64s : public detail::InterlockedWord<int64_t> {
 public:
  using detail::InterlockedWord<int64_t>::InterlockedWord;
  using detail::InterlockedWord<int64_t>::operator=;
};

// Atomic unsigned 64-bit counter, modulo 2^64.
class QUENLIB_API SInterlockedInt64u : public detail::InterlockedWord<uint64_t> {
 public:
  using detail::InterlockedWord<uint64_t>::InterlockedWord;
  using detail::InterlockedWord<uint64_t>::operator=;
};

static_assert(sizeof(SInterlockedInt32s) == 4 && sizeof(SInterlockedInt32u) == 4,
              "counters are one 32-bit word");
static_assert(sizeof(SInterlockedInt64s) == 8 && sizeof(SInterlockedInt64u) == 8,
              "64-bit counters are one 64-bit word");

// Free-function forms, taking a pointer to the counter.
inline int32_t SInterlockedExchangeAdd(SInterlockedInt32s* p, int32_t d) noexcept {
  return p->exchangeAdd(d);
}
inline int32_t SInterlockedExchange(SInterlockedInt32s* p, int32_t v) noexcept {
  return p->exchange(v);
}
inline int32_t SInterlockedCompareExchange(SInterlockedInt32s* p, int32_t v,
                                           int32_t comparand) noexcept {
  return p->compareExchange(v, comparand);
}
inline int64_t SInterlockedExchangeAdd(SInterlockedInt64s* p, int64_t d) noexcept {
  return p->exchangeAdd(d);
}
inline int64_t SInterlockedExchange(SInterlockedInt64s* p, int64_t v) noexcept {
  return p->exchange(v);
}
inline int64_t SInterlockedCompareExchange(SInterlockedInt64s* p, int64_t v,
                                           int64_t comparand) noexcept {
  return p->compareExchange(v, comparand);
}
inline uint64_t SInterlockedCompareExchange(SInterlockedInt64u* p, uint64_t v,
                                            uint64_t comparand) noexcept {
  return p->compareExchange(v, comparand);
}
inline int32_t SNonInterlockedRead(SInterlockedInt32s const* p) noexcept {
  return p->nonInterlockedRead();
}
inline void SNonInterlockedSet(SInterlockedInt32s* p, int32_t v) noexcept {
  p->nonInterlockedSet(v);
}
inline uint32_t SNonInterlockedRead(SInterlockedInt32u const* p) noexcept {
  return p->nonInterlockedRead();
}
inline void SNonInterlockedSet(SInterlockedInt32u* p, uint32_t v) noexcept {
  p->nonInterlockedSet(v);
}

}  // namespace QuenLibA500
