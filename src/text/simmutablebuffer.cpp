// simmutablebuffer.cpp: SImmutableBuffer, shared read-only views of bytes.
//
// Every view of a block points at one Shared record; the record and the
// block go when its count reaches zero. A view made from a null pointer
// (or of size 0 by copy) has no record at all.
#include <quenlib/simmutablebuffer.h>

#include "diagnostics/assert.h"

#include <algorithm>
#include <cstring>

namespace QuenLibA500 {

SImmutableBuffer::SImmutableBuffer(unsigned char const* ptr, unsigned int sz,
                                   AdoptionType adoption) {
  if (ptr == nullptr) {
    if (sz != 0) QL_REPORT("ptr || sz==0", static_cast<char const*>(nullptr));
    return;
  }
  unsigned char* block = const_cast<unsigned char*>(ptr);
  if (adoption == AT_Copy) {
    block = new unsigned char[sz ? sz : 1];
    if (sz) std::memcpy(block, ptr, sz);
  }
  shared_ = new Shared;
  shared_->block = block;
  shared_->adoption = adoption;
  ptr_ = block;
  size_ = sz;
}

SImmutableBuffer::SImmutableBuffer(SImmutableBuffer const& other)
    : ptr_(other.ptr_), size_(other.size_), shared_(other.shared_) {
  if (shared_) shared_->count.exchangeInc();
}

SImmutableBuffer::SImmutableBuffer(SImmutableBuffer const& whole, unsigned int offset,
                                   unsigned int length) {
  if (offset > whole.size_ || length > whole.size_ - offset)
    throw SImmutableBufferException("SImmutableBuffer subset operation out of range");
  shared_ = whole.shared_;
  if (shared_) shared_->count.exchangeInc();
  ptr_ = whole.ptr_ ? whole.ptr_ + offset : nullptr;
  size_ = length;
}

SImmutableBuffer& SImmutableBuffer::operator=(SImmutableBuffer const& other) {
  // Taken first: other may be this object.
  Shared* const shared = other.shared_;
  unsigned char const* const ptr = other.ptr_;
  unsigned int const size = other.size_;
  if (shared) shared->count.exchangeInc();
  release();
  ptr_ = ptr;
  size_ = size;
  shared_ = shared;
  return *this;
}

SImmutableBuffer::~SImmutableBuffer() { release(); }

void SImmutableBuffer::release() {
  if (shared_ && shared_->count.exchangeDec() == 1) {
    delete[] shared_->block;
    delete shared_;
  }
  shared_ = nullptr;
}

unsigned char SImmutableBuffer::at(unsigned int i) const {
  if (i >= size_) throw SImmutableBufferException("out-of-bounds SImmutableBuffer access");
  return ptr_[i];
}

bool SImmutableBuffer::operator==(SImmutableBuffer const& other) const {
  if (size_ != other.size_) return false;
  return size_ == 0 || ptr_ == other.ptr_ || std::memcmp(ptr_, other.ptr_, size_) == 0;
}

bool SImmutableBuffer::operator<(SImmutableBuffer const& other) const {
  unsigned int const n = std::min(size_, other.size_);
  int const c = n ? std::memcmp(ptr_, other.ptr_, n) : 0;
  if (c != 0) return c < 0;
  return size_ < other.size_;
}

int32_t SImmutableBuffer::refcount() const { return shared_ ? shared_->count.read() : 0; }

}  // namespace QuenLibA500
