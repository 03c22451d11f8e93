// simplebuffer.h: a growable, shared, copy-on-write byte buffer.
//
// `SSimpleBuffer` holds raw bytes in a reference-counted record
// (`SSimpleBuffer::SSimpleInternalBuffer`). Copies share the record; the
// first write to a shared record takes a private copy. Every empty buffer
// points at the one static `EmptyBuffer` record, which is never counted,
// written or freed.
//
//   SSimpleBuffer b;
//   unsigned char const hello[] = {'h', 'e', 'l', 'l', 'o'};
//   b.append(hello, 5, 64);           // capacity 5 + 64: later appends fit
//   b << '!';
//   SSimpleBuffer c = b;              // shares the record
//   c.append(hello, 1, (unsigned)-1); // c copies first; b is unchanged
//   b.saveToFile("/tmp/out.bin", true);
//
// Growth: capacity grows only by what the caller asks for. append() takes a
// `reserve` of extra bytes to allocate whenever it has to reallocate; pass
// a reserve when appending repeatedly, (unsigned)-1 for none. There is no
// doubling.
//
// Writing in place: getBuffer(min) returns a private, writable block of at
// least `min` bytes; write into it and call releaseBuffer(n) with the number
// of bytes now in use. The content is never zero-terminated.
//
// Comparison is lexicographic over the bytes (shorter prefix first), unlike
// the strings, which order by length first.
//
// Files:
//  - loadFromFile(path, mapFile, deleteFileOnRelease) replaces the content
//    with the whole file. mapFile true maps the file (a private mapping:
//    writes through getBuffer change this buffer's pages, never the file);
//    false reads it into memory. deleteFileOnRelease true deletes the file
//    when the last buffer sharing the record lets go of it (for temporary
//    files handed from one owner to the next).
//  - loadFromFileEx(path, mapFile, deleteFileOnRelease, offset, length)
//    takes `length` bytes from `offset` ((unsigned)-1: to the end of the
//    file). An offset beyond the end or a range past the end fails.
//  - saveToFile(path, sync) writes the content to a temporary file in the
//    same directory and renames it over path, so that a crash never leaves
//    a half-written file. sync true also flushes the file and the directory
//    to the disk before returning. An existing file keeps its permissions.
// Every file operation returns false on failure and leaves the buffer as
// it was; the failures are traced with the system's reason.
//
// Allocation failure never throws here: a copy that cannot be made leaves
// the buffer as it was (or, for detach(), empty) and is reported.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sinterlocked.h>
#include <quenlib/sstring.h>

#include <cstdint>

namespace QuenLibA500 {

class QUENLIB_API SSimpleBuffer {
 public:
  // One record per distinct buffer content.
  struct QUENLIB_API SSimpleInternalBuffer {
    SInterlockedInt32s refCount{1};
    uint32_t bytesUsed = 0;
    uint32_t bytesAllocated = 0;
    unsigned char* data = nullptr;
    bool mapped = false;
    bool deleteFileOnRelease = false;
    // The file behind a mapping or to be deleted; empty otherwise.
    SAnsiString fileName;
    // The open descriptor of the mapped file, -1 when none.
    int32_t mapHandle = -1;
    // Distance from the page-aligned start of the mapping to data, 0 when
    // nothing is mapped.
    uint32_t mapView = 0;

    // Maps the whole file at path read-write private; false on failure
    // (the record is then unchanged). The record must not hold data yet.
    bool Map(char const* path);
    bool Map(SAnsiString const& path) { return Map(path.getString()); }
    // Maps `length` bytes from `offset` ((unsigned)-1: to the end).
    bool MapRange(char const* path, uint32_t offset, uint32_t length);
    // Unmaps and closes; the record is then without data.
    void UnMap();
    bool IsMapped() const { return mapped; }
  };

  // The shared record of every empty buffer, with its single data byte.
  struct _EmptyBuffer : SSimpleInternalBuffer {
    unsigned char byte = 0;
    _EmptyBuffer() {
      refCount.nonInterlockedSet(-1);
      data = &byte;
    }
  };
  static _EmptyBuffer EmptyBuffer;

  SSimpleBuffer();
  // A private record of capacity n and no content.
  explicit SSimpleBuffer(unsigned int n);
  // adopt true: the buffer takes p (allocated with alloc()) as its data, n
  // bytes used. adopt false: a private copy of the n bytes. A null p or a
  // zero n is a caller error: it is reported and the buffer is left without
  // a record, so that later writes report "buffer" and do nothing.
  SSimpleBuffer(unsigned char* p, unsigned int n, bool adopt);
  SSimpleBuffer(SSimpleBuffer const& other);
  SSimpleBuffer& operator=(SSimpleBuffer const& other);
  virtual ~SSimpleBuffer();

  unsigned char* getBuffer(unsigned int minSize = static_cast<unsigned int>(-1));
  void releaseBuffer(unsigned int n);

  void append(unsigned char const* p, unsigned int n,
              unsigned int reserve = static_cast<unsigned int>(-1));
  void append(unsigned char c);
  SSimpleBuffer& operator<<(unsigned char c);

  // Hands the data block to the caller, who frees it with dealloc(); the
  // buffer becomes empty. Null for an empty buffer.
  unsigned char* detach();

  void empty();
  bool isEmpty() const;
  unsigned int getNBytes() const;
  unsigned int getNBytesAllocated() const;
  operator unsigned char const*() const;

  // -1, 0 or 1: lexicographic over unsigned bytes, a proper prefix first.
  int compare(SSimpleBuffer const& other) const;
  bool operator==(SSimpleBuffer const& other) const;
  // True when the getNBytes() bytes at p equal the content (a null p equals
  // only an empty buffer).
  bool operator==(unsigned char const* p) const;
  bool operator!=(SSimpleBuffer const& other) const { return !(*this == other); }
  bool operator<(SSimpleBuffer const& other) const { return compare(other) < 0; }

  bool loadFromFile(SAnsiString const& path, bool mapFile, bool deleteFileOnRelease);
  bool loadFromFileEx(SAnsiString const& path, bool mapFile, bool deleteFileOnRelease,
                      unsigned int offset, unsigned int length);
  bool saveToFile(SAnsiString const& path, bool sync) const;
  bool loadFromFile(char const* path, bool mapFile, bool deleteFileOnRelease);
  bool loadFromFileEx(char const* path, bool mapFile, bool deleteFileOnRelease,
                      unsigned int offset, unsigned int length);
  bool saveToFile(char const* path, bool sync) const;

  // The allocator of data blocks (malloc/free); detach() hands out blocks
  // to be given back to dealloc(). alloc(0) returns a valid block.
  static unsigned char* alloc(unsigned int n);
  static void dealloc(unsigned char* p);

  static bool IsEmptyBuffer(SSimpleInternalBuffer const* r) { return r == &EmptyBuffer; }
  static SSimpleInternalBuffer* GetEmptyBuffer() { return &EmptyBuffer; }

  // The record (for tests and for code that inspects sharing).
  SSimpleInternalBuffer const* getRecord() const { return buffer; }

 protected:
  bool allocBufferHeader(unsigned int n);
  bool allocBuffer(unsigned int n);
  bool copyOnAppend(unsigned int min, unsigned int reserve);
  bool copyBufferBeforeWrite(unsigned int size);
  void terminateBuffer(unsigned int n);
  void setBuffer(SSimpleInternalBuffer* b);
  static void ReleaseBuffer(SSimpleInternalBuffer* b);
  void releaseInternalBuffer();
  SSimpleInternalBuffer* getBufferProtected() const { return buffer; }
  void setBufferProtected(SSimpleInternalBuffer* b) { buffer = b; }
  void concat(unsigned char const* p, unsigned int n);

 private:
  bool mustCopyBeforeWrite() const;
  bool loadInto(char const* path, bool mapFile, bool deleteFileOnRelease, uint32_t offset,
                uint32_t length);

  SSimpleInternalBuffer* buffer;
};

}  // namespace QuenLibA500
