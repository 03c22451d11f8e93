// The server console fed arbitrary operator bytes (telnet negotiation,
// zero bytes, CR without LF, endless lines) through a socket pair, then end
// of input. The console must end, and it can never prompt or answer more
// often than there were line ends.
#include <quenlib/siconsole.h>
#include <quenlib/siserver.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>

using namespace QuenLibA500;

namespace {

size_t count(std::string const& text, std::string const& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

void check(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size > 20000) return 0;
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) __builtin_trap();
  std::string output;
  // The operator's side: sends everything, ends its input, reads all answers.
  std::thread operatorSide([&] {
    for (size_t done = 0; done < size;) {
      ssize_t const n = ::send(pair[1], data + done, size - done, MSG_NOSIGNAL);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    ::shutdown(pair[1], SHUT_WR);
    char buf[4096];
    for (ssize_t n; (n = ::recv(pair[1], buf, sizeof buf, 0)) > 0;) output.append(buf, static_cast<size_t>(n));
  });
  {
    SIConsole console("fuzz", CSmartRefCountPtr<SIServer>(), "fuzz", pair[0]);
    console.run();
  }
  ::shutdown(pair[0], SHUT_RDWR);
  operatorSide.join();
  ::close(pair[0]);
  ::close(pair[1]);
  std::string const input(reinterpret_cast<char const*>(data), size);
  size_t const lineEnds = count(input, "\n");
  check(count(output, "@ your command:") >= 1);
  check(count(output, "@ your command:") <= lineEnds + 1);
  check(count(output, "no server") <= lineEnds);
  return 0;
}
