// simplebuffer.cpp: SSimpleBuffer, the shared copy-on-write byte buffer.
//
// Invariants:
//  - `buffer` is null only after the faulty construction (null pointer or
//    zero size); every other state points at a record or at EmptyBuffer.
//  - EmptyBuffer is never counted, written or released.
//  - A record whose count is 2 or more is never written: every write path
//    first copies (copyOnAppend, getBuffer, copyBufferBeforeWrite).
//  - A mapped record is a private read-write mapping, so writing into it
//    changes neither the file nor another process's view.
#include <quenlib/simplebuffer.h>
#include <quenlib/sstringhelper.h>

#include "diagnostics/assert.h"

#include <quenlib/slogger.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace QuenLibA500 {

SSimpleBuffer::_EmptyBuffer SSimpleBuffer::EmptyBuffer;

namespace {

constexpr unsigned int kNone = static_cast<unsigned int>(-1);
constexpr char const* kNoMessage = nullptr;

using Record = SSimpleBuffer::SSimpleInternalBuffer;

void trace(SLogger::tracelevel level, int line, char const* text) {
  if (SLogger::ShouldTrace(level, __FILE__, line)) SLogger::Trace(level, text, __FILE__, line);
}

// "%1"/"%2" filled with the path and the system's reason for errno e.
std::string fileMessage(char const* format, char const* path, int e) {
  return SStringHelper::formatMessage(format, path, std::strerror(e)).getString();
}

bool addOverflows(unsigned int a, unsigned int b, unsigned int* sum) {
  return __builtin_add_overflow(a, b, sum);
}

// Writes all n bytes, retrying short writes and interrupted calls.
bool writeAll(int fd, unsigned char const* p, size_t n) {
  while (n > 0) {
    ssize_t const w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool readAll(int fd, unsigned char* p, size_t n, off_t offset) {
  while (n > 0) {
    ssize_t const r = ::pread(fd, p, n, offset);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
    offset += r;
  }
  return true;
}

// The length of the range [offset, offset + length) of a file of `size`
// bytes; false when it does not lie inside the file.
bool rangeInFile(off_t size, uint32_t offset, uint32_t length, uint32_t* out) {
  if (size < 0 || static_cast<uint64_t>(size) > 0xFFFFFFFFu) {
    if (length == kNone) return false;
  }
  uint64_t const sz = static_cast<uint64_t>(size);
  if (offset > sz) return false;
  uint64_t const rest = sz - offset;
  uint64_t const want = length == kNone ? rest : length;
  if (want > rest || want > 0xFFFFFFFFu) return false;
  *out = static_cast<uint32_t>(want);
  return true;
}

std::string directoryOf(std::string const& path) {
  auto const slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace

// ---- records

bool Record::Map(char const* path) { return MapRange(path, 0, kNone); }

bool Record::MapRange(char const* path, uint32_t offset, uint32_t length) {
  if (path == nullptr || data != nullptr) return false;
  int const fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  uint32_t len = 0;
  if (::fstat(fd, &st) != 0 || !rangeInFile(st.st_size, offset, length, &len) || len == 0) {
    ::close(fd);
    return false;
  }
  long const page = ::sysconf(_SC_PAGESIZE);
  uint32_t const delta = offset % static_cast<uint32_t>(page);
  void* const base = ::mmap(nullptr, size_t(len) + delta, PROT_READ | PROT_WRITE, MAP_PRIVATE,
                            fd, static_cast<off_t>(offset - delta));
  if (base == MAP_FAILED) {
    ::close(fd);
    return false;
  }
  data = static_cast<unsigned char*>(base) + delta;
  bytesUsed = len;
  bytesAllocated = len;
  mapped = true;
  mapHandle = fd;
  mapView = delta;
  fileName = path;
  return true;
}

void Record::UnMap() {
  QL_ASSERT(IsMapped());
  if (!mapped) return;
  ::munmap(data - mapView, size_t(bytesAllocated) + mapView);
  if (mapHandle >= 0) ::close(mapHandle);
  data = nullptr;
  bytesUsed = 0;
  bytesAllocated = 0;
  mapped = false;
  mapHandle = -1;
  mapView = 0;
}

// ---- allocation

unsigned char* SSimpleBuffer::alloc(unsigned int n) {
  return static_cast<unsigned char*>(std::malloc(n ? n : 1));
}

void SSimpleBuffer::dealloc(unsigned char* p) { std::free(p); }

bool SSimpleBuffer::allocBufferHeader(unsigned int n) {
  Record* r = new (std::nothrow) Record;
  if (r == nullptr) return false;
  r->bytesAllocated = n;
  buffer = r;
  return true;
}

bool SSimpleBuffer::allocBuffer(unsigned int n) {
  Record* const old = buffer;
  if (!allocBufferHeader(n)) return false;
  buffer->data = alloc(n);
  if (buffer->data == nullptr) {
    delete buffer;
    buffer = old;
    return false;
  }
  terminateBuffer(0);
  return true;
}

void SSimpleBuffer::terminateBuffer(unsigned int n) {
  if (buffer == nullptr) {
    QL_REPORT("buffer", kNoMessage);
    return;
  }
  if (n > buffer->bytesAllocated) {
    QL_REPORT("bytesUsed <= buffer->bytesAllocated", kNoMessage);
    return;
  }
  buffer->bytesUsed = n;
}

void SSimpleBuffer::ReleaseBuffer(Record* r) {
  if (r == nullptr || IsEmptyBuffer(r)) return;
  if (r->refCount.exchangeDec() != 1) return;
  if (r->mapped) {
    r->UnMap();
  } else {
    dealloc(r->data);
  }
  if (r->deleteFileOnRelease && !r->fileName.isEmpty() && ::unlink(r->fileName.getString()) != 0) {
    trace(SLogger::tl_Warning, __LINE__,
          fileMessage("SSimpleBuffer could not delete file %1. Reason is: %2.\n",
                      r->fileName.getString(), errno)
              .c_str());
  }
  delete r;
}

void SSimpleBuffer::releaseInternalBuffer() {
  ReleaseBuffer(buffer);
  buffer = nullptr;
}

void SSimpleBuffer::setBuffer(Record* b) {
  if (b == buffer) return;
  ReleaseBuffer(buffer);
  buffer = b;
  if (b != nullptr && !IsEmptyBuffer(b)) b->refCount.exchangeInc();
}

// The record may not be written as it is: it is the empty record or shared.
bool SSimpleBuffer::mustCopyBeforeWrite() const {
  return IsEmptyBuffer(buffer) || buffer->refCount.read() >= 2;
}

// Replaces the record by a private one of `size` bytes holding the old
// content (cut to size). False, with the buffer unchanged, when out of memory.
bool SSimpleBuffer::copyBufferBeforeWrite(unsigned int size) {
  Record* const old = buffer;
  if (!allocBuffer(size)) {
    QL_REPORT("buffer->data", kNoMessage);
    return false;
  }
  uint32_t const keep = std::min(old->bytesUsed, size);
  if (keep) std::memcpy(buffer->data, old->data, keep);
  buffer->bytesUsed = keep;
  ReleaseBuffer(old);
  return true;
}

bool SSimpleBuffer::copyOnAppend(unsigned int min, unsigned int reserve) {
  unsigned int size = std::max(min, buffer->bytesUsed);
  // Exactly full also reallocates: kept on purpose, callers size on it.
  if (size < buffer->bytesAllocated && buffer->refCount.read() < 2 && !IsEmptyBuffer(buffer))
    return true;
  if (reserve != kNone && addOverflows(size, reserve, &size)) {
    QL_REPORT("0", kNoMessage);
    return false;
  }
  return copyBufferBeforeWrite(size);
}

// ---- construction

SSimpleBuffer::SSimpleBuffer() : buffer(&EmptyBuffer) {}

SSimpleBuffer::SSimpleBuffer(unsigned int n) : buffer(&EmptyBuffer) {
  if (!allocBuffer(n)) QL_REPORT("buffer->data", kNoMessage);
}

SSimpleBuffer::SSimpleBuffer(unsigned char* p, unsigned int n, bool adopt) : buffer(nullptr) {
  if (p == nullptr || n == 0) {
    QL_REPORT("0", kNoMessage);
    return;
  }
  if (adopt) {
    if (!allocBufferHeader(n)) return;
    buffer->data = p;
    buffer->bytesUsed = n;
    return;
  }
  buffer = &EmptyBuffer;
  if (!allocBuffer(n)) {
    // The copy could not be made: a record without content stands for it.
    if (allocBufferHeader(0)) buffer->data = alloc(0);
    return;
  }
  std::memcpy(buffer->data, p, n);
  buffer->bytesUsed = n;
}

SSimpleBuffer::SSimpleBuffer(SSimpleBuffer const& other) : buffer(nullptr) {
  setBuffer(other.buffer);
}

SSimpleBuffer& SSimpleBuffer::operator=(SSimpleBuffer const& other) {
  setBuffer(other.buffer);
  return *this;
}

SSimpleBuffer::~SSimpleBuffer() { releaseInternalBuffer(); }

// ---- writing

unsigned char* SSimpleBuffer::getBuffer(unsigned int minSize) {
  if (buffer == nullptr) {
    QL_REPORT("buffer", kNoMessage);
    return nullptr;
  }
  if (!mustCopyBeforeWrite() && (minSize == kNone || minSize < buffer->bytesAllocated))
    return buffer->data;
  unsigned int const size = minSize == kNone ? buffer->bytesUsed
                                             : std::max(minSize, buffer->bytesUsed);
  if (!copyBufferBeforeWrite(size)) return nullptr;
  return buffer->data;
}

void SSimpleBuffer::releaseBuffer(unsigned int n) {
  if (buffer == nullptr) {
    QL_REPORT("buffer", kNoMessage);
    return;
  }
  if (IsEmptyBuffer(buffer) && n == 0) return;
  if (mustCopyBeforeWrite() && !copyBufferBeforeWrite(buffer->bytesUsed)) return;
  terminateBuffer(n);
}

void SSimpleBuffer::append(unsigned char const* p, unsigned int n, unsigned int reserve) {
  if (p == nullptr || n == 0) return;
  if (buffer == nullptr) {
    QL_REPORT("buffer", kNoMessage);
    return;
  }
  if (IsEmptyBuffer(buffer)) {
    unsigned int size = n;
    if (reserve != kNone && addOverflows(n, reserve, &size)) {
      QL_REPORT("0", kNoMessage);
      return;
    }
    if (!allocBuffer(size)) {
      QL_REPORT("buffer->data", kNoMessage);
      return;
    }
    std::memcpy(buffer->data, p, n);
    buffer->bytesUsed = n;
    return;
  }
  unsigned int need = 0;
  if (addOverflows(buffer->bytesUsed, n, &need)) {
    QL_REPORT("0", kNoMessage);
    return;
  }
  if (!copyOnAppend(need, reserve)) return;
  if (buffer->data == nullptr) {
    QL_REPORT("p", kNoMessage);
    return;
  }
  std::memcpy(buffer->data + buffer->bytesUsed, p, n);
  buffer->bytesUsed += n;
}

void SSimpleBuffer::append(unsigned char c) { append(&c, 1, kNone); }

SSimpleBuffer& SSimpleBuffer::operator<<(unsigned char c) {
  append(&c, 1, kNone);
  return *this;
}

void SSimpleBuffer::concat(unsigned char const* p, unsigned int n) {
  if (buffer == nullptr) {
    QL_REPORT("buffer", kNoMessage);
    return;
  }
  unsigned int size = 0;
  if (addOverflows(buffer->bytesUsed, n, &size)) {
    QL_REPORT("0", kNoMessage);
    return;
  }
  Record* const old = buffer;
  if (!allocBuffer(size)) {
    QL_REPORT("buffer->data", kNoMessage);
    return;
  }
  if (old->bytesUsed) std::memcpy(buffer->data, old->data, old->bytesUsed);
  if (n && p) std::memcpy(buffer->data + old->bytesUsed, p, n);
  buffer->bytesUsed = size;
  ReleaseBuffer(old);
}

unsigned char* SSimpleBuffer::detach() {
  if (buffer == nullptr) {
    QL_REPORT("buffer", kNoMessage);
    return nullptr;
  }
  if (IsEmptyBuffer(buffer)) return nullptr;
  if (buffer->mapped || buffer->refCount.read() >= 2) {
    trace(SLogger::tl_L, __LINE__, "SSimpleBuffer::detach() copying buffer before detaching");
    Record* const old = buffer;
    if (!allocBuffer(old->bytesUsed)) {
      trace(SLogger::tl_L, __LINE__, "DetachableSSimpleBuffer:: memory allocation failure?");
      buffer = &EmptyBuffer;
      ReleaseBuffer(old);
      return nullptr;
    }
    if (old->bytesUsed) std::memcpy(buffer->data, old->data, old->bytesUsed);
    buffer->bytesUsed = old->bytesUsed;
    ReleaseBuffer(old);
  }
  QL_ASSERT(buffer->refCount.read() == 1);
  unsigned char* const out = buffer->data;
  buffer->data = nullptr;
  ReleaseBuffer(buffer);
  buffer = &EmptyBuffer;
  return out;
}

// ---- queries

void SSimpleBuffer::empty() { setBuffer(&EmptyBuffer); }

bool SSimpleBuffer::isEmpty() const { return getNBytes() == 0; }

unsigned int SSimpleBuffer::getNBytes() const { return buffer ? buffer->bytesUsed : 0; }

unsigned int SSimpleBuffer::getNBytesAllocated() const {
  return buffer ? buffer->bytesAllocated : 0;
}

SSimpleBuffer::operator unsigned char const*() const { return buffer ? buffer->data : nullptr; }

int SSimpleBuffer::compare(SSimpleBuffer const& other) const {
  unsigned int const a = getNBytes();
  unsigned int const b = other.getNBytes();
  unsigned int const n = std::min(a, b);
  int const c = n ? std::memcmp(buffer->data, other.buffer->data, n) : 0;
  if (c != 0) return c < 0 ? -1 : 1;
  if (a == b) return 0;
  return a < b ? -1 : 1;
}

bool SSimpleBuffer::operator==(SSimpleBuffer const& other) const {
  unsigned int const n = getNBytes();
  if (n != other.getNBytes()) return false;
  return n == 0 || std::memcmp(buffer->data, other.buffer->data, n) == 0;
}

bool SSimpleBuffer::operator==(unsigned char const* p) const {
  unsigned int const n = getNBytes();
  if (p == nullptr) return n == 0;
  return n == 0 || std::memcmp(buffer->data, p, n) == 0;
}

// ---- files

bool SSimpleBuffer::loadInto(char const* path, bool mapFile, bool deleteFileOnRelease,
                             uint32_t offset, uint32_t length) {
  if (path == nullptr || *path == 0) return false;
  Record* const old = buffer;
  if (!allocBufferHeader(0)) {
    buffer = old;
    return false;
  }
  Record* const r = buffer;
  buffer = old;
  bool ok = false;
  if (mapFile) ok = r->MapRange(path, offset, length);
  if (!ok) {
    // Not mapped (asked not to, or an empty range that cannot be mapped).
    int const fd = ::open(path, O_RDONLY | O_CLOEXEC);
    struct stat st;
    uint32_t len = 0;
    if (fd >= 0 && ::fstat(fd, &st) == 0 && rangeInFile(st.st_size, offset, length, &len) &&
        (!mapFile || len == 0)) {
      r->data = alloc(len);
      r->bytesAllocated = len;
      ok = r->data != nullptr && readAll(fd, r->data, len, offset);
      if (ok) r->bytesUsed = len;
    }
    if (fd >= 0) ::close(fd);
  }
  if (!ok) {
    dealloc(r->data);
    delete r;
    return false;
  }
  r->deleteFileOnRelease = deleteFileOnRelease;
  if (deleteFileOnRelease) r->fileName = path;
  ReleaseBuffer(buffer);
  buffer = r;
  return true;
}

bool SSimpleBuffer::loadFromFile(char const* path, bool mapFile, bool deleteFileOnRelease) {
  return loadInto(path, mapFile, deleteFileOnRelease, 0, kNone);
}

bool SSimpleBuffer::loadFromFileEx(char const* path, bool mapFile, bool deleteFileOnRelease,
                                   unsigned int offset, unsigned int length) {
  return loadInto(path, mapFile, deleteFileOnRelease, offset, length);
}

bool SSimpleBuffer::loadFromFile(SAnsiString const& path, bool mapFile,
                                 bool deleteFileOnRelease) {
  return loadInto(path.getString(), mapFile, deleteFileOnRelease, 0, kNone);
}

bool SSimpleBuffer::loadFromFileEx(SAnsiString const& path, bool mapFile,
                                   bool deleteFileOnRelease, unsigned int offset,
                                   unsigned int length) {
  return loadInto(path.getString(), mapFile, deleteFileOnRelease, offset, length);
}

bool SSimpleBuffer::saveToFile(SAnsiString const& path, bool sync) const {
  return saveToFile(path.getString(), sync);
}

bool SSimpleBuffer::saveToFile(char const* path, bool sync) const {
  if (path == nullptr || *path == 0) return false;
  std::string const target = path;
  std::string tmp = target + ".XXXXXX";
  int const fd = ::mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) {
    trace(SLogger::tl_Warning, __LINE__,
          fileMessage("SSimpleBuffer::saveToFile: could not open file %1 for writing.  Reason: %2.",
                      path, errno)
              .c_str());
    return false;
  }
  // The new file takes the permissions of the one it replaces, or the
  // usual 0666 less the umask.
  struct stat st;
  mode_t mode;
  if (::stat(path, &st) == 0) {
    mode = st.st_mode & 07777;
  } else {
    mode_t const mask = ::umask(0);
    ::umask(mask);
    mode = 0666 & ~mask;
  }
  int err = 0;
  if (::fchmod(fd, mode) != 0 || !writeAll(fd, buffer ? buffer->data : nullptr, getNBytes()) ||
      (sync && ::fsync(fd) != 0))
    err = errno ? errno : EIO;
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && ::rename(tmp.c_str(), path) != 0) err = errno;
  if (err != 0) {
    ::unlink(tmp.c_str());
    trace(SLogger::tl_Warning, __LINE__,
          fileMessage("SSimpleBuffer::saveToFile: could not write to file %1.  Reason: %2", path,
                      err)
              .c_str());
    return false;
  }
  if (sync) {
    int const dfd = ::open(directoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
      ::fsync(dfd);
      ::close(dfd);
    }
  }
  return true;
}

}  // namespace QuenLibA500
