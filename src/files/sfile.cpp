// SFile, SFileSys, SFileException: local files on POSIX descriptors and
// std::filesystem, with whole-text reads and writes in a FileEncoding.
#include <quenlib/codesetconverter.h>
#include <quenlib/sfile.h>
#include <quenlib/simplebuffer.h>

#include "text/localeconv.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

namespace QuenLibA500 {

namespace {

// The longest text a string can hold: its length is 32 bits, and the
// buffer keeps some spare units beyond it.
constexpr uint64_t kMaxTextBytes = 0xffff0000u;

std::string errnoText(int osError) {
  char buf[256];
  // GNU strerror_r: returns the text, in buf or static.
  return ::strerror_r(osError, buf, sizeof buf);
}

SAnsiString ansi(std::string_view s) { return SAnsiString(s.data(), static_cast<unsigned>(s.size())); }

std::string_view view(SAnsiString const& s) { return std::string_view(s.getString(), s.getLength()); }

bool startsWith(std::string_view s, std::string_view mark) { return s.substr(0, mark.size()) == mark; }

constexpr std::string_view kMarkUtf8 = "\xef\xbb\xbf";
constexpr std::string_view kMarkUtf16LE = "\xff\xfe";
constexpr std::string_view kMarkUtf16BE = "\xfe\xff";

FileEncoding detectEncoding(std::string_view bytes) {
  if (startsWith(bytes, kMarkUtf8)) return FE_UTF8;
  if (startsWith(bytes, kMarkUtf16LE)) return FE_UTF16LE;
  if (startsWith(bytes, kMarkUtf16BE)) return FE_UTF16BE;
  return FE_Ansi;
}

std::string_view skipMark(std::string_view bytes, std::string_view mark) {
  return startsWith(bytes, mark) ? bytes.substr(mark.size()) : bytes;
}

// UTF-16 bytes (a last odd byte is ignored) to locale text.
SAnsiString fromUtf16Bytes(std::string_view bytes, bool littleEndian) {
  std::u16string units(bytes.size() / 2, u'\0');
  for (size_t i = 0; i < units.size(); ++i) {
    auto a = static_cast<unsigned char>(bytes[2 * i]);
    auto b = static_cast<unsigned char>(bytes[2 * i + 1]);
    units[i] = static_cast<WChar>(littleEndian ? (a | b << 8) : (b | a << 8));
  }
  return ansi(localeconv::fromUtf16(units.data(), units.size()));
}

SAnsiString decodeText(std::string_view bytes, FileEncoding encoding) {
  if (encoding == FE_Detect) encoding = detectEncoding(bytes);
  switch (encoding) {
    case FE_UTF8:
      bytes = skipMark(bytes, kMarkUtf8);
      return ansi(MBCSCodesetConverter::ExplicitCodesetToLocale(bytes.data(), bytes.size(),
                                                                MBCSCodesetConverter::ECS_UTF8));
    case FE_UTF16LE: return fromUtf16Bytes(skipMark(bytes, kMarkUtf16LE), true);
    case FE_UTF16BE: return fromUtf16Bytes(skipMark(bytes, kMarkUtf16BE), false);
    default: return ansi(bytes.substr(0, localeconv::boundedLength(bytes.data(), bytes.size())));
  }
}

std::string toUtf16Bytes(std::string_view text, bool littleEndian, bool withMark) {
  std::u16string const units = localeconv::toUtf16(text.data(), text.size());
  std::string_view const mark = withMark ? (littleEndian ? kMarkUtf16LE : kMarkUtf16BE) : "";
  std::string out(mark.size() + units.size() * 2, '\0');
  mark.copy(out.data(), mark.size());
  char* p = out.data() + mark.size();
  for (char16_t u : units) {
    char lo = static_cast<char>(u & 0xff), hi = static_cast<char>(u >> 8);
    *p++ = littleEndian ? lo : hi;
    *p++ = littleEndian ? hi : lo;
  }
  return out;
}

// UTF-8 goes without a mark, except before a text that itself begins with
// U+FEFF: reading skips one mark, so the text then reads back unchanged.
std::string toUtf8Bytes(std::string_view text, bool atStart) {
  SSimpleBuffer b = MBCSCodesetConverter::LocaleToExplicitCodeset(text.data(), text.size(),
                                                                  MBCSCodesetConverter::ECS_UTF8);
  std::string out(reinterpret_cast<char const*>(static_cast<unsigned char const*>(b)), b.getNBytes());
  if (atStart && startsWith(out, kMarkUtf8)) out.insert(0, kMarkUtf8);
  return out;
}

// The bytes of locale text in encoding; atStart: written at the start of
// the file, where UTF-16 gets its mark.
std::string encodeText(SAnsiString const& text, FileEncoding encoding, bool atStart) {
  std::string_view t = view(text);
  t = t.substr(0, localeconv::boundedLength(t.data(), t.size()));
  switch (encoding) {
    case FE_UTF8: return toUtf8Bytes(t, atStart);
    case FE_UTF16LE: return toUtf16Bytes(t, true, atStart);
    case FE_UTF16BE: return toUtf16Bytes(t, false, atStart);
    default: return std::string(t);
  }
}

int openFlags(SFile::OpenMode mode) {
  switch (mode) {
    case SFile::modeRead: return O_RDONLY;
    case SFile::modeWrite: return O_WRONLY;
    case SFile::modeReadWrite: return O_RDWR;
    case SFile::modeCreate: return O_WRONLY | O_CREAT | O_TRUNC;
    case SFile::modeCreateRW: return O_RDWR | O_CREAT | O_TRUNC;
    case SFile::modeCreateNew: return O_WRONLY | O_CREAT | O_EXCL;
    case SFile::modeAppend: return O_WRONLY | O_CREAT | O_APPEND;
  }
  return -1;
}

// A name piece that differs on every call in this process and, with high
// probability, from other processes' (creation with O_EXCL settles the rest).
std::string uniquePart() {
  static std::atomic<uint64_t> counter{0};
  uint64_t x = counter.fetch_add(1, std::memory_order_relaxed) * 0x9e3779b97f4a7c15ull;
  x ^= static_cast<uint64_t>(::getpid()) << 40;
  x ^= static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  // splitmix64 finaliser: spreads the bits over the whole word.
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  x ^= x >> 31;
  static char const kHex[] = "0123456789abcdef";
  std::string out(16, '0');
  for (int i = 15; i >= 0; --i, x >>= 4) out[static_cast<size_t>(i)] = kHex[x & 15];
  return out;
}

std::string joinPath(std::string_view dir, std::string_view name) {
  if (dir.empty()) return std::string(name);
  std::string out(dir);
  if (out.back() != '/') out += '/';
  out += name;
  return out;
}

void setErrno(std::error_code const& ec) { errno = ec.value() ? ec.value() : EIO; }

// Moves a regular file to another file system: copy, then remove the source.
bool moveAcrossDevices(char const* from, char const* to) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (!fs::is_regular_file(fs::symlink_status(from, ec))) {
    errno = EXDEV;
    return false;
  }
  if (!fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec)) {
    setErrno(ec);
    return false;
  }
  return ::unlink(from) == 0;
}

}  // namespace

// ================================================================ exception

SFileException::ErrorCodes SFileException::codeFromErrno(int osError) {
  switch (osError) {
    case 0: return none;
    case ENOENT: return fileNotFound;
    case EACCES:
    case EPERM:
    case EROFS: return accessDenied;
    case EEXIST: return fileExists;
    case EISDIR: return isDirectory;
    case ENOTDIR: return notDirectory;
    case ENAMETOOLONG:
    case ELOOP: return badPath;
    case EINVAL: return invalidArgument;
    case EMFILE:
    case ENFILE: return tooManyOpenFiles;
    case ENOSPC:
    case EDQUOT: return diskFull;
    case EBADF: return notOpen;
    case EFBIG:
    case EOVERFLOW: return fileTooLarge;
    case EIO: return hardIO;
    default: return generic;
  }
}

SFileException::SFileException(int osError, SAnsiString const& path)
    : m_code(codeFromErrno(osError)),
      m_osError(osError),
      m_path(path),
      m_reason(ansi(std::string(view(path)) + ": " + errnoText(osError))) {}

SFileException::SFileException(ErrorCodes code, SAnsiString const& path, char const* text)
    : m_code(code), m_osError(0), m_path(path), m_reason(ansi(std::string(view(path)) + ": " + text)) {}

SFileException::~SFileException() = default;

// ================================================================ SFile

SFile::SFile(SAnsiString const& path, OpenMode mode) { open(path, mode); }

SFile::~SFile() { closeQuietly(); }

SFile::SFile(SFile&& other) noexcept : m_fd(other.m_fd), m_append(other.m_append), m_path(other.m_path) {
  other.m_fd = -1;
}

SFile& SFile::operator=(SFile&& other) noexcept {
  if (this == &other) return *this;
  closeQuietly();
  m_fd = other.m_fd;
  m_append = other.m_append;
  m_path = other.m_path;
  other.m_fd = -1;
  return *this;
}

void SFile::open(SAnsiString const& path, OpenMode mode) {
  closeQuietly();
  m_path = path;
  int flags = openFlags(mode);
  if (flags < 0) throw SFileException(SFileException::invalidArgument, path, "unknown open mode");
  if (path.isEmpty()) fail(ENOENT);
  int fd = ::open(path.getString(), flags | O_CLOEXEC, 0666);
  if (fd < 0) fail(errno);
  // Reading a directory's descriptor fails only later; refuse it now.
  struct stat st;
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(fd);
    fail(EISDIR);
  }
  m_fd = fd;
  m_append = (flags & O_APPEND) != 0;
}

void SFile::close() {
  if (m_fd < 0) return;
  int fd = m_fd;
  m_fd = -1;
  // Linux releases the descriptor even when close reports EINTR, so it is
  // never retried; other errors (EIO, ENOSPC on network files) are real.
  if (::close(fd) != 0 && errno != EINTR) fail(errno);
}

void SFile::closeQuietly() noexcept {
  if (m_fd < 0) return;
  ::close(m_fd);
  m_fd = -1;
}

void SFile::requireOpen() const {
  if (m_fd < 0) throw SFileException(SFileException::notOpen, m_path, "file is not open");
}

void SFile::fail(int osError) const { throw SFileException(osError, m_path); }

size_t SFile::read(void* buffer, size_t n) {
  requireOpen();
  auto* p = static_cast<char*>(buffer);
  size_t done = 0;
  while (done < n) {
    ssize_t got = ::read(m_fd, p + done, n - done);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      fail(errno);
    }
    done += static_cast<size_t>(got);
  }
  return done;
}

void SFile::write(void const* buffer, size_t n) {
  requireOpen();
  auto const* p = static_cast<char const*>(buffer);
  size_t done = 0;
  while (done < n) {
    ssize_t put = ::write(m_fd, p + done, n - done);
    if (put < 0) {
      if (errno == EINTR) continue;
      fail(errno);
    }
    done += static_cast<size_t>(put);
  }
}

SAnsiString SFile::readString(FileEncoding encoding) {
  requireOpen();
  uint64_t total = size(), at = getPosition();
  std::string bytes;
  if (total > at) {
    if (total - at > kMaxTextBytes) throw SFileException(SFileException::fileTooLarge, m_path, "text too large");
    bytes.reserve(static_cast<size_t>(total - at));
  }
  // Read to the end even when the size said otherwise (pipes, /proc files,
  // a file that grows meanwhile).
  char chunk[65536];
  for (;;) {
    size_t got = read(chunk, sizeof chunk);
    if (bytes.size() + got > kMaxTextBytes)
      throw SFileException(SFileException::fileTooLarge, m_path, "text too large");
    bytes.append(chunk, got);
    if (got < sizeof chunk) break;
  }
  return decodeText(bytes, encoding);
}

void SFile::writeString(SAnsiString const& text, FileEncoding encoding) {
  requireOpen();
  bool atStart = m_append ? size() == 0 : getPosition() == 0;
  std::string bytes = encodeText(text, encoding, atStart);
  write(bytes.data(), bytes.size());
}

uint64_t SFile::size() const {
  requireOpen();
  struct stat st;
  if (::fstat(m_fd, &st) != 0) fail(errno);
  return static_cast<uint64_t>(st.st_size);
}

uint64_t SFile::seek(int64_t offset, SeekFrom from) {
  requireOpen();
  int whence = from == fromEnd ? SEEK_END : from == fromCurrent ? SEEK_CUR : SEEK_SET;
  off_t at = ::lseek(m_fd, static_cast<off_t>(offset), whence);
  if (at < 0) fail(errno);
  return static_cast<uint64_t>(at);
}

uint64_t SFile::getPosition() const {
  requireOpen();
  off_t at = ::lseek(m_fd, 0, SEEK_CUR);
  if (at < 0) fail(errno);
  return static_cast<uint64_t>(at);
}

void SFile::setSize(uint64_t n) {
  requireOpen();
  if (n > static_cast<uint64_t>(INT64_MAX)) fail(EFBIG);
  while (::ftruncate(m_fd, static_cast<off_t>(n)) != 0)
    if (errno != EINTR) fail(errno);
}

void SFile::flush() {
  requireOpen();
  if (::fsync(m_fd) != 0 && errno != EINVAL) fail(errno);  // EINVAL: a pipe or device
}

// ================================================================ SFileSys

bool SFileSys::exists(SAnsiString const& path) {
  struct stat st;
  return ::lstat(path.getString(), &st) == 0;
}

bool SFileSys::isDirectory(SAnsiString const& path) {
  struct stat st;
  return ::stat(path.getString(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool SFileSys::remove(SAnsiString const& path) { return ::remove(path.getString()) == 0; }

bool SFileSys::rename(SAnsiString const& from, SAnsiString const& to) {
  if (::rename(from.getString(), to.getString()) == 0) return true;
  if (errno != EXDEV) return false;
  return moveAcrossDevices(from.getString(), to.getString());
}

bool SFileSys::createDirectory(SAnsiString const& path) {
  if (path.isEmpty()) {
    errno = ENOENT;
    return false;
  }
  std::error_code ec;
  std::filesystem::create_directories(path.getString(), ec);
  if (isDirectory(path)) return true;
  if (exists(path)) {
    errno = EEXIST;  // the name is taken by something that is no directory
  } else {
    setErrno(ec);
  }
  return false;
}

bool SFileSys::setCurrentDirectory(SAnsiString const& path) { return ::chdir(path.getString()) == 0; }

SAnsiString SFileSys::getCurrentDirectory() {
  std::string buf(256, '\0');
  while (::getcwd(buf.data(), buf.size()) == nullptr) {
    if (errno != ERANGE) throw SFileException(errno, ".");
    buf.resize(buf.size() * 2);
  }
  return SAnsiString(buf.c_str());
}

SAnsiString SFileSys::getTempDirname() {
  char const* env = std::getenv("TMPDIR");
  std::string dir = env && *env ? env : "/tmp";
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return ansi(dir);
}

SAnsiString SFileSys::getTempFilename(SAnsiString const& prefix) {
  std::string path = joinPath(view(getTempDirname()), view(prefix)) + "XXXXXX";
  int fd = ::mkostemp(path.data(), O_CLOEXEC);
  if (fd < 0) throw SFileException(errno, ansi(path));
  ::close(fd);
  return ansi(path);
}

SAnsiString SFileSys::getUniqueFilename(SAnsiString const& dir, SAnsiString const& prefix,
                                        SAnsiString const& extension) {
  std::string_view ext = view(extension);
  if (!ext.empty() && ext.front() == '.') ext.remove_prefix(1);
  std::string path;
  // Each try is a fresh name; only a taken name (EEXIST) tries again.
  for (int attempt = 0; attempt < 64; ++attempt) {
    path = joinPath(view(dir), std::string(view(prefix)) + uniquePart());
    if (!ext.empty()) path.append(".").append(ext);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
      ::close(fd);
      return ansi(path);
    }
    if (errno != EEXIST) break;
  }
  throw SFileException(errno, ansi(path));
}

SAnsiString SFileSys::unifyPath(SAnsiString const& path) {
  std::string out(view(path));
  std::mbstate_t state{};
  // Step by whole characters: in some locales (Shift-JIS and the like) the
  // second byte of a character may have the value of "\\".
  for (size_t i = 0; i < out.size();) {
    size_t len = std::mbrlen(out.data() + i, out.size() - i, &state);
    if (len == 0 || len > out.size() - i) {  // a zero byte, or invalid/incomplete
      state = std::mbstate_t{};
      len = 1;
    }
    if (len == 1 && out[i] == '\\') out[i] = '/';
    i += len;
  }
  return ansi(out);
}

}  // namespace QuenLibA500
