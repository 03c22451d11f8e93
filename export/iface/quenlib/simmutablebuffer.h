// simmutablebuffer.h: a read-only, shared view of bytes.
//
// `SImmutableBuffer` takes a block of bytes once, either by copying it or
// by adopting the caller's block, and never changes it. Copies and
// sub-ranges share the block through one reference count; the block is
// freed when the last view goes.
//
//   unsigned char const text[] = "hello, world";
//   SImmutableBuffer all(text, 12, SImmutableBuffer::AT_Copy);
//   SImmutableBuffer world(all, 7, 5);     // shares the block: "world"
//   unsigned char w = world.at(0);         // 'w'
//   world.at(5);                           // throws SImmutableBufferException
//
// Adoption types: AT_Copy (0) copies the caller's bytes; AT_Adopt (1), and
// every other non-zero value, takes the caller's pointer as the block,
// which must then come from `new unsigned char[]`: it is freed with
// `delete[]` when the last view goes.
//
// Thread safety: views of one block may be copied and destroyed on several
// threads at once (the count is atomic); the bytes are never written.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sinterlocked.h>

#include <cstdint>
#include <stdexcept>

namespace QuenLibA500 {

// Thrown for a sub-range or an index outside the view; what() is the text.
class QUENLIB_API SImmutableBufferException : public std::out_of_range {
 public:
  explicit SImmutableBufferException(char const* text) : std::out_of_range(text) {}
};

class QUENLIB_API SImmutableBuffer {
 public:
  enum AdoptionType { AT_Copy = 0, AT_Adopt = 1 };

  // A null ptr with sz > 0 is a caller error: it is reported and the view
  // is empty. Copying throws std::bad_alloc when memory runs out.
  SImmutableBuffer(unsigned char const* ptr, unsigned int sz, AdoptionType adoption);
  SImmutableBuffer(SImmutableBuffer const& other);
  // The bytes [offset, offset + length) of whole, sharing its block; throws
  // SImmutableBufferException when they are not all inside whole.
  SImmutableBuffer(SImmutableBuffer const& whole, unsigned int offset, unsigned int length);
  SImmutableBuffer& operator=(SImmutableBuffer const& other);
  ~SImmutableBuffer();

  unsigned int size() const { return size_; }
  unsigned char const* data() const { return ptr_; }
  // Throws SImmutableBufferException when i >= size().
  unsigned char at(unsigned int i) const;

  // Equal size and bytes.
  bool operator==(SImmutableBuffer const& other) const;
  bool operator!=(SImmutableBuffer const& other) const { return !(*this == other); }
  // Lexicographic over unsigned bytes; a proper prefix is smaller.
  bool operator<(SImmutableBuffer const& other) const;

  // Number of views sharing the block (0 for a view without one).
  int32_t refcount() const;

 private:
  struct Shared {
    SInterlockedInt32s count{1};
    unsigned char* block = nullptr;
    int adoption = AT_Copy;
  };

  void release();

  unsigned char const* ptr_ = nullptr;
  unsigned int size_ = 0;
  Shared* shared_ = nullptr;
};

}  // namespace QuenLibA500
