// csipipe.cpp: framed messages over a pair of anonymous pipes.
//
// The frame is written with one writev (digit count, length digits, bytes):
// the bytes on the wire are the three pieces in order, and a reader sees
// the same stream as from three writes. Reads go through a buffer owned by
// the descriptor pair, so a small frame costs one read() instead of three.
#include <quenlib/csipipe.h>
#include <quenlib/stringconv.h>

#include "text/stdtext.h"
#include "diagnostics/assert.h"
#include "diagnostics/trace.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <string>
#include <system_error>
#include <vector>

namespace QuenLibA500 {

namespace {

using stdtext::errnoText;

constexpr int kNoFd = -1;
constexpr size_t kReadBufferSize = 64 * 1024;


int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

void CloseFd(int& fd) {
  if (fd == kNoFd) return;
  int const closeRetVal = ::close(fd);
  QL_ASSERT(0 == closeRetVal);
  fd = kNoFd;
}

SAnsiString HexText(int fd) { return SAnsiStringConv::ToString(static_cast<unsigned>(fd), 16); }

// Strict hexadecimal: the integer reader skips "x" and stops at the first
// stranger, which would turn a mistyped handle into a wrong descriptor.
bool ParseHexFd(SAnsiString const& text, int& fd) {
  unsigned length = text.getLength();
  if (length == 0 || length > 8) return false;
  char const* p = text.getString();
  unsigned value = 0;
  for (unsigned i = 0; i < length; ++i) {
    int digit = HexDigitValue(p[i]);
    if (digit < 0) return false;
    value = value * 16 + static_cast<unsigned>(digit);
  }
  if (value > 0x7FFFFFFFu) return false;
  fd = static_cast<int>(value);
  return true;
}

// Blocks SIGPIPE in this thread for the guard's life, so that a write to a
// pipe without a reader fails with EPIPE instead of killing the process.
// A SIGPIPE that the write raised is taken off the pending set afterwards.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&m_pipeOnly);
    sigaddset(&m_pipeOnly, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &m_pipeOnly, &m_previous);
  }
  ~SigpipeGuard() {
    if (!m_wasPending) {
      sigset_t pending;
      sigpending(&pending);
      if (sigismember(&pending, SIGPIPE) == 1) {
        timespec const zero{0, 0};
        sigtimedwait(&m_pipeOnly, nullptr, &zero);
      }
    }
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
  }
  SigpipeGuard(SigpipeGuard const&) = delete;
  SigpipeGuard& operator=(SigpipeGuard const&) = delete;

 private:
  sigset_t m_pipeOnly;
  sigset_t m_previous;
  bool m_wasPending = false;
};

[[noreturn]] void ThrowWrite(int err) {
  throw CSIPipeException(CSIPipeException::writeFailed,
                         SAnsiString(("CSIPipe::WriteString(): failed writing to pipe: " + errnoText(err)).c_str()),
                         err);
}

// Writes every byte of the vector, going on after partial writes and
// signals.
void WriteAll(int fd, iovec* iov, int count) {
  SigpipeGuard guard;
  while (count > 0) {
    ssize_t n = ::writev(fd, iov, count);
    if (n < 0) {
      if (errno == EINTR) continue;
      ThrowWrite(errno);
    }
    auto left = static_cast<size_t>(n);
    while (count > 0 && left >= iov->iov_len) {
      left -= iov->iov_len;
      ++iov;
      --count;
    }
    if (count > 0) {
      iov->iov_base = static_cast<char*>(iov->iov_base) + left;
      iov->iov_len -= left;
    }
  }
}

enum ReadResult : int { kReadFailed = -1, kReadTimedOut = -2, kReadInterrupted = -3 };

}  // namespace

// ---- descriptors shared by copies ----------------------------------------

struct CSIPipe::Handles {
  int ownRead = kNoFd;     // this side reads here
  int ownWrite = kNoFd;    // this side writes here
  int childRead = kNoFd;   // server only: the child's ends until
  int childWrite = kNoFd;  // ClosePipesOnExec
  std::vector<char> buffer;
  size_t begin = 0;  // unread bytes are buffer[begin, end)
  size_t end = 0;

  Handles() = default;
  Handles(Handles const&) = delete;
  Handles& operator=(Handles const&) = delete;
  ~Handles() {
    CloseFd(ownRead);
    CloseFd(ownWrite);
    CloseFd(childRead);
    CloseFd(childWrite);
  }
};

namespace {

// One frame read: the deadline, the settings and the last error.
class FrameReader {
 public:
  FrameReader(int fd, CSIPipe::Handles& h, bool useTimeout, unsigned seconds, bool throwEintr)
      : m_fd(fd), m_h(h), m_useTimeout(useTimeout), m_throwEintr(throwEintr),
        m_deadline(std::chrono::steady_clock::now() + std::chrono::seconds(seconds)) {}

  // Fills dst with n bytes; returns 0 or a ReadResult.
  int readExact(char* dst, size_t n) {
    while (n > 0) {
      size_t have = m_h.end - m_h.begin;
      if (have > 0) {
        size_t take = have < n ? have : n;
        std::memcpy(dst, m_h.buffer.data() + m_h.begin, take);
        m_h.begin += take;
        dst += take;
        n -= take;
        continue;
      }
      // Large remainders go straight to their destination.
      bool direct = n >= kReadBufferSize;
      if (!direct && m_h.buffer.empty()) m_h.buffer.resize(kReadBufferSize);
      char* into = direct ? dst : m_h.buffer.data();
      size_t room = direct ? n : m_h.buffer.size();
      ssize_t got = 0;
      if (int rc = readSome(into, room, got); rc != 0) return rc;
      if (direct) {
        dst += got;
        n -= static_cast<size_t>(got);
      } else {
        m_h.begin = 0;
        m_h.end = static_cast<size_t>(got);
      }
    }
    return 0;
  }

  std::string const& errorText() const { return m_error; }
  int osError() const { return m_errno; }

 private:
  int fail(int rc, int err, std::string text) {
    m_errno = err;
    m_error = std::move(text);
    return rc;
  }

  // Waits for the remaining time, then reads what is there.
  int readSome(char* into, size_t room, ssize_t& got) {
    for (;;) {
      if (m_useTimeout) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(m_deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return fail(kReadTimedOut, ETIMEDOUT, errnoText(ETIMEDOUT));
        pollfd p{m_fd, POLLIN, 0};
        int r = ::poll(&p, 1, left.count() > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(left.count()));
        if (r == 0) return fail(kReadTimedOut, ETIMEDOUT, errnoText(ETIMEDOUT));
        if (r < 0) {
          if (errno != EINTR) return fail(kReadFailed, errno, errnoText(errno));
          if (m_throwEintr) return fail(kReadInterrupted, EINTR, errnoText(EINTR));
          continue;
        }
      }
      got = ::read(m_fd, into, room);
      if (got > 0) return 0;
      if (got == 0) return fail(kReadFailed, EPIPE, "the writing end of the pipe was closed");
      if (errno != EINTR) return fail(kReadFailed, errno, errnoText(errno));
      if (m_throwEintr) return fail(kReadInterrupted, EINTR, errnoText(EINTR));
    }
  }

  int m_fd;
  CSIPipe::Handles& m_h;
  bool m_useTimeout;
  bool m_throwEintr;
  std::chrono::steady_clock::time_point m_deadline;
  std::string m_error;
  int m_errno = 0;
};

[[noreturn]] void ThrowRead(int rc, FrameReader const& r) {
  SAnsiString const why(r.errorText().c_str());
  switch (rc) {
    case kReadTimedOut:
      QL_TRACE(SLogger::tl_Warning, "PipeListener: ReadString(1) timed out: %1", why);
      throw CSIPipeException(CSIPipeException::timedOut,
                             SAnsiString("PipeListener: timed out reading from pipe: ") + why, r.osError());
    case kReadInterrupted:
      QL_TRACE(SLogger::tl_Warning, "PipeListener: ReadString(1) interrupted: %1", why);
      throw CSIPipeException(CSIPipeException::interrupted, SAnsiString("PipeListener: interrupted: ") + why,
                             r.osError());
    default:
      QL_TRACE(SLogger::tl_Error, "PipeListener: ReadString(1) failed: %1", why);
      throw CSIPipeException(CSIPipeException::readFailed,
                             SAnsiString("PipeListener: failed reading from pipe: ") + why, r.osError());
  }
}

[[noreturn]] void ThrowBadFrame(std::string const& why) {
  SAnsiString const text(why.c_str());
  QL_TRACE(SLogger::tl_Error, "PipeListener: ReadString(1) failed: %1", text);
  throw CSIPipeException(CSIPipeException::badFrame, SAnsiString("PipeListener: failed reading from pipe: ") + text);
}

}  // namespace

// ---- exception ------------------------------------------------------------

CSIPipeException::CSIPipeException(ErrorCodes code, SAnsiString const& text, int osError)
    : m_code(code), m_osError(osError), m_text(text) {}
CSIPipeException::~CSIPipeException() = default;

// ---- frame code -------------------------------------------------------------

CSIPipe::CSIPipe(unsigned short timeout, bool useTimeout, bool throwEintr)
    : m_timeout(timeout), m_useTimeout(useTimeout), m_throwEintr(throwEintr) {}
CSIPipe::~CSIPipe() = default;

void CSIPipe::WriteStringHelper(int fd, SAnsiString const& text) {
  unsigned const length = text.getLength();
  if (length > kMaxWriteLength)
    throw CSIPipeException(CSIPipeException::tooLarge, "CSIPipe::WriteString(): string is too large");
  char digits[kStringConvUnits];
  int const count = StringConvFromInteger(digits, length, 16);
  char countChar = "0123456789ABCDEF"[count];
  iovec iov[3] = {{&countChar, 1},
                  {digits, static_cast<size_t>(count)},
                  {const_cast<char*>(text.getString()), length}};
  WriteAll(fd, iov, length == 0 ? 2 : 3);
}

namespace {

SAnsiString ReadFrame(int fd, CSIPipe::Handles& h, bool useTimeout, unsigned seconds, bool throwEintr) {
  FrameReader reader(fd, h, useTimeout, seconds, throwEintr);
  char countChar = 0;
  if (int rc = reader.readExact(&countChar, 1); rc != 0) ThrowRead(rc, reader);
  int const count = HexDigitValue(countChar);
  if (count < 0) ThrowBadFrame("the frame does not start with a hexadecimal digit");
  if (count > 7) ThrowBadFrame("a frame length of " + std::to_string(count) + " digits is beyond the limit");
  char digits[8];
  if (int rc = reader.readExact(digits, static_cast<size_t>(count)); rc != 0) ThrowRead(rc, reader);
  unsigned length = 0;
  for (int i = 0; i < count; ++i) {
    int d = HexDigitValue(digits[i]);
    if (d < 0) ThrowBadFrame("the frame length is not hexadecimal");
    length = length * 16 + static_cast<unsigned>(d);
  }
  if (count == 0 || length == 0) {
    QL_TRACE(SLogger::tl_L, "PipeListener: ReadString(1) numberOfChars is zero?");
    return SAnsiString();
  }
  // The buffer grows with the bytes that arrive (doubling from 64 KiB), so a
  // header announcing 256 MiB costs nothing until the data is really there.
  std::string bytes;
  size_t got = 0;
  while (got < length) {
    size_t const step = std::min<size_t>(length - got, std::max<size_t>(kReadBufferSize, got));
    try {
      bytes.resize(got + step);
    } catch (std::bad_alloc const&) {
      SAnsiString const why(errnoText(ENOMEM).c_str());
      QL_TRACE(SLogger::tl_Error, "PipeListener: ReadString() memory allocation failure: %1", why);
      throw CSIPipeException(CSIPipeException::noMemory,
                             SAnsiString("PipeListener: memory allocation failure: ") + why, ENOMEM);
    }
    if (int rc = reader.readExact(bytes.data() + got, step); rc != 0) ThrowRead(rc, reader);
    got += step;
  }
  return SAnsiString(bytes.data(), length);
}

}  // namespace

SAnsiString CSIPipe::ReadStringHelper(Handles& handles) {
  return ReadFrame(handles.ownRead, handles, m_useTimeout, m_timeout, m_throwEintr);
}

// ---- server -----------------------------------------------------------------

CSIPipeServer::CSIPipeServer(unsigned short timeout, bool useTimeout, bool throwEintr)
    : CSIPipe(timeout, useTimeout, throwEintr), m_handles(std::make_shared<Handles>()) {
  int toChild[2];
  int fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) != 0)
    throw CSIPipeException(
        CSIPipeException::createFailed,
        SAnsiString(("System call 'CreatePipe()' failed (server). Errno is " + std::to_string(errno)).c_str()), errno);
  if (::pipe2(fromChild, O_CLOEXEC) != 0) {
    int const err = errno;
    ::close(toChild[0]);
    ::close(toChild[1]);
    throw CSIPipeException(
        CSIPipeException::createFailed,
        SAnsiString(("System call 'CreatePipe()' failed (server). Errno is " + std::to_string(err)).c_str()), err);
  }
  m_handles->childRead = toChild[0];
  m_handles->ownWrite = toChild[1];
  m_handles->ownRead = fromChild[0];
  m_handles->childWrite = fromChild[1];
  // The child's ends are inherited by the child; the parent's stay private.
  ::fcntl(m_handles->childRead, F_SETFD, 0);
  ::fcntl(m_handles->childWrite, F_SETFD, 0);
}

CSIPipeServer::~CSIPipeServer() = default;

SAnsiString CSIPipeServer::GetReadPipe() const { return HexText(m_handles->childRead); }
SAnsiString CSIPipeServer::GetWritePipe() const { return HexText(m_handles->childWrite); }

void CSIPipeServer::ClosePipesOnExec() {
  CloseFd(m_handles->childRead);
  CloseFd(m_handles->childWrite);
}

int CSIPipeServer::theReadPipeHandle() const { return m_handles->ownRead; }
int CSIPipeServer::theWritePipeHandle() const { return m_handles->ownWrite; }

SAnsiString CSIPipeServer::ReadString() { return ReadStringHelper(*m_handles); }

void CSIPipeServer::WriteString(SAnsiString const& text) { WriteStringHelper(m_handles->ownWrite, text); }

// ---- client -----------------------------------------------------------------

CSIPipeClient::CSIPipeClient(SAnsiString const& readPipe, SAnsiString const& writePipe, unsigned short timeout,
                             bool useTimeout, bool throwEintr)
    : CSIPipe(timeout, useTimeout, throwEintr), m_handles(std::make_shared<Handles>()) {
  QL_ASSERT_MSG(SetPipes(readPipe, writePipe), "the pipe handle texts are not hexadecimal descriptor numbers");
}

CSIPipeClient::CSIPipeClient(unsigned short timeout, bool useTimeout, bool throwEintr)
    : CSIPipe(timeout, useTimeout, throwEintr), m_handles(std::make_shared<Handles>()) {
  int loop[2];
  if (::pipe2(loop, O_CLOEXEC) != 0)
    throw CSIPipeException(
        CSIPipeException::createFailed,
        SAnsiString(("System call 'CreatePipe()' failed (client). Errno is " + std::to_string(errno)).c_str()), errno);
  m_handles->ownRead = loop[0];
  m_handles->ownWrite = loop[1];
}

CSIPipeClient::~CSIPipeClient() = default;

bool CSIPipeClient::SetPipes(SAnsiString const& readPipe, SAnsiString const& writePipe) {
  int readFd = kNoFd;
  int writeFd = kNoFd;
  if (!ParseHexFd(readPipe, readFd) || !ParseHexFd(writePipe, writeFd)) return false;
  auto fresh = std::make_shared<Handles>();
  fresh->ownRead = readFd;
  fresh->ownWrite = writeFd;
  // The inherited ends must not travel further, into our own children.
  ::fcntl(readFd, F_SETFD, FD_CLOEXEC);
  ::fcntl(writeFd, F_SETFD, FD_CLOEXEC);
  m_handles = std::move(fresh);
  return true;
}

SAnsiString CSIPipeClient::ReadString() { return ReadStringHelper(*m_handles); }

void CSIPipeClient::WriteString(SAnsiString const& text) { WriteStringHelper(m_handles->ownWrite, text); }

}  // namespace QuenLibA500
