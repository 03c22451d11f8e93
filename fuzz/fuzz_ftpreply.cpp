// The FTP reply reader fed arbitrary server bytes through a socket pair: a
// greeting, then PWD replies until the bytes run out. Reading never
// crashes or hangs, failures are CSIftpException of the socket or reply
// categories, reply codes are what the first three characters say, and a
// working directory is text found between double quotes of a 257 reply.
#include <quenlib/csiftp.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/slogger.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

using namespace QuenLibA500;

namespace {

// Writes what fits into the pair's buffer, then ends the stream.
bool feed(int fd, uint8_t const* data, size_t size) {
  ::fcntl(fd, F_SETFL, O_NONBLOCK);
  size_t done = 0;
  while (done < size) {
    ssize_t const n = ::send(fd, data + done, size - done, MSG_NOSIGNAL);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  return ::shutdown(fd, SHUT_WR) == 0;
}

void check(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  SLogger::Initialize(CParamLineArgs("fuzz_ftpreply -trace off -noassert"), false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  // Each reply sends a PWD into the pair, which nobody reads: 4 KiB of
  // replies keep those within the socket buffer.
  if (size > 4096) return 0;
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return 0;
  if (!feed(pair[1], data, size)) std::abort();
  std::string const text(reinterpret_cast<char const*>(data), size);
  {
    CSIftp ftp;
    ftp.SetReceiveTimeout(1);
    try {
      ftp.AttachControlConnection(static_cast<unsigned>(pair[0]), AF_INET);
      check(std::atoi(text.substr(0, 3).c_str()) == 220);
      for (;;) {
        std::string const dir(ftp.GetWorkingDir().getString());
        // Lines are joined by "\n" in the reply, so only a one-line text is
        // found in the bytes as it stands.
        check(dir.find('\n') != std::string::npos || text.find(dir) != std::string::npos);
      }
    } catch (CSIftpException const& e) {
      check(e.getCategory() == CSIftpException::catSocket ||
            e.getCategory() == CSIftpException::catReply ||
            e.getCategory() == CSIftpException::catConnection);
    }
  }
  ::close(pair[1]);
  return 0;
}
