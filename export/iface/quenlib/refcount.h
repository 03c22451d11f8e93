// refcount.h: intrusive, thread-safe reference counting.
//
// `CRefCountedObject` is a base class that carries an atomic count;
// `CSmartRefCountPtr<T>` holds a `T` derived from it and keeps the count
// right across copies, moves and assignment. The object is deleted (through
// its virtual destructor) when the last pointer lets go. `UTFBuffer_t<T>`
// is the counted array in which the converters hand back their results.
//
//   CSmartRefCountPtr<UTFBuffer_t<unsigned char>> p(new UTFBuffer_t<unsigned char>(16));
//   CSmartRefCountPtr<UTFBuffer_t<unsigned char>> q = p;   // count 2
//   p = nullptr;                                           // count 1
//   unsigned char* bytes = q->getBuffer();
//
// The count is changed with atomic operations, so pointers to one object may
// be copied and dropped from several threads at once; one pointer object
// itself is not locked.
#pragma once

#include <quenlib/quenlib_export.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

namespace QuenLibA500 {

// Base of every object held by CSmartRefCountPtr. Starts at count 0: the
// first smart pointer that takes it raises the count to 1.
class QUENLIB_API CRefCountedObject {
 public:
  CRefCountedObject() = default;
  CRefCountedObject(CRefCountedObject const&) : count_(0) {}
  CRefCountedObject& operator=(CRefCountedObject const&) { return *this; }
  virtual ~CRefCountedObject() = default;

  void addRef() const { count_.fetch_add(1, std::memory_order_relaxed); }
  // Lowers the count and deletes the object when it reaches zero.
  void release() const {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  int32_t refCount() const { return count_.load(std::memory_order_acquire); }

 private:
  mutable std::atomic<int32_t> count_{0};
};

template <class T>
class CSmartRefCountPtr {
 public:
  CSmartRefCountPtr() = default;
  CSmartRefCountPtr(std::nullptr_t) {}
  explicit CSmartRefCountPtr(T* p) : p_(p) { acquire(); }
  CSmartRefCountPtr(CSmartRefCountPtr const& o) : p_(o.p_) { acquire(); }
  CSmartRefCountPtr(CSmartRefCountPtr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  ~CSmartRefCountPtr() { drop(); }

  CSmartRefCountPtr& operator=(CSmartRefCountPtr const& o) {
    reset(o.p_);
    return *this;
  }
  CSmartRefCountPtr& operator=(CSmartRefCountPtr&& o) noexcept {
    if (this != &o) {
      drop();
      p_ = std::exchange(o.p_, nullptr);
    }
    return *this;
  }
  CSmartRefCountPtr& operator=(T* p) {
    reset(p);
    return *this;
  }
  CSmartRefCountPtr& operator=(std::nullptr_t) {
    reset(nullptr);
    return *this;
  }

  // Takes p (raising its count first, so that p may be the object held now).
  void reset(T* p = nullptr) {
    if (p) p->addRef();
    drop();
    p_ = p;
  }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  bool operator!() const { return p_ == nullptr; }
  bool operator==(CSmartRefCountPtr const& o) const { return p_ == o.p_; }
  bool operator!=(CSmartRefCountPtr const& o) const { return p_ != o.p_; }

 private:
  void acquire() {
    if (p_) p_->addRef();
  }
  void drop() {
    if (p_) p_->release();
    p_ = nullptr;
  }

  T* p_ = nullptr;
};

// A counted, zero-filled array of `units` units of T. getLength() is the
// number of units that hold the result, the terminator not included.
// When the array cannot be allocated getBuffer() is null and the capacity
// 0: the converters report that instead of throwing.
template <class T>
class UTFBuffer_t : public CRefCountedObject {
 public:
  explicit UTFBuffer_t(size_t units)
      : data_(new (std::nothrow) T[units ? units : 1]()), capacity_(data_ ? units : 0) {}
  UTFBuffer_t(UTFBuffer_t const&) = delete;
  UTFBuffer_t& operator=(UTFBuffer_t const&) = delete;
  ~UTFBuffer_t() override { delete[] data_; }

  T* getBuffer() { return data_; }
  T const* getBuffer() const { return data_; }
  size_t getCapacity() const { return capacity_; }
  size_t getLength() const { return length_; }
  void setLength(size_t n) { length_ = n; }

 private:
  T* data_;
  size_t capacity_;
  size_t length_ = 0;
};

}  // namespace QuenLibA500
