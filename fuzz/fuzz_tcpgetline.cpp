// The line socket's GetLine fed arbitrary peer bytes through a loopback
// connection that the peer then closes. Every line returned must be the
// next CR LF-terminated piece of the input (an LF alone belongs to the
// line; a zero byte ends its C text), a line of more than 2,046 bytes must
// end the reading, and the end of the bytes must give false.
#include <quenlib/csitcpsocket.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

using namespace QuenLibA500;

namespace {

int listener(unsigned short& port) {
  int const s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (s < 0 || ::bind(s, reinterpret_cast<sockaddr*>(&a), len) != 0 || ::listen(s, 4) != 0) __builtin_trap();
  ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  port = ntohs(a.sin_port);
  return s;
}

void check(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size > 60000) return 0;  // fits the socket buffers: one thread writes all first
  static unsigned short port = 0;
  static int const server = listener(port);
  CSITcpSocket client("127.0.0.1", port);
  check(client.TcpOpen(false) && client.IsOpen());
  int const peer = ::accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
  check(peer >= 0);
  for (size_t done = 0; done < size;) {
    ssize_t const n = ::send(peer, data + done, size - done, MSG_NOSIGNAL);
    check(n > 0);
    done += static_cast<size_t>(n);
  }
  ::close(peer);

  std::string const input(reinterpret_cast<char const*>(data), size);
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  for (size_t at = 0;;) {
    size_t const end = input.find("\r\n", at);
    bool const whole = end != std::string::npos && end - at <= CSITcpSocket::LINE_BUFFER_SIZE - 1;
    bool const got = client.GetLine(line, 2);
    check(got == whole);
    if (!got) break;
    std::string const expected = input.substr(at, end - at);
    check(std::strcmp(line, expected.c_str()) == 0);
    at = end + 2;
  }
  check(!client.IsOpen());
  return 0;
}
