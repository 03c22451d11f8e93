// Feeds arbitrary bytes, as a confused or hostile mail server would send
// them, through a loopback connection to the SMTP reply reader, then closes
// the connection. The reader must end with a code of 100 to 999 or the
// read failure, and the reply text must be the lines it consumed.
#include <quenlib/csismtpmail.h>
#include <quenlib/csitcpsocket.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

using namespace QuenLibA500;

namespace {

int listener(unsigned short& port) {
  int const s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (s < 0 || ::bind(s, reinterpret_cast<sockaddr*>(&a), len) != 0 || ::listen(s, 4) != 0) std::abort();
  ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  port = ntohs(a.sin_port);
  return s;
}

void writeAll(int fd, uint8_t const* data, size_t size) {
  while (size > 0) {
    ssize_t const n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) std::abort();
    data += n, size -= static_cast<size_t>(n);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  // What fits in the socket buffers, so one thread can write all first;
  // below the reader's limit on kept reply text.
  if (size > 60000) return 0;
  static unsigned short port = 0;
  static int const server = listener(port);
  CSITcpSocket client("127.0.0.1", port);
  if (!client.TcpOpen(false) || !client.IsOpen()) std::abort();
  int const peer = ::accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
  if (peer < 0) std::abort();
  writeAll(peer, data, size);
  // The peer ends with a reset rather than a FIN: the client still reads
  // every byte queued before it, then sees the connection gone, and neither
  // end is left in TIME_WAIT (a long run made 13,000 such connections a
  // minute and the next connect failed).
  linger const reset{1, 0};
  ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  ::close(peer);

  SAnsiString reply;
  int const code = CSISMTPClient::ReadReply(client, 5, &reply);
  client.AbortSocket();
  if (code != CSISMTPClient::kReadFailed && (code < 100 || code > 999)) std::abort();
  // Without zero bytes (which end a line's text early) the reply is exactly
  // the input's first lines, CR LF included.
  std::string_view const in(reinterpret_cast<char const*>(data), size);
  std::string_view const text(reply.getString(), reply.getLength());
  if (in.find('\0') == std::string_view::npos && in.substr(0, text.size()) != text)
    std::abort();
  if (code != CSISMTPClient::kReadFailed) {
    size_t const last = text.rfind("\r\n", text.size() - 3);
    std::string_view const line = text.substr(last == std::string_view::npos ? 0 : last + 2);
    char digits[4] = {};
    std::memcpy(digits, line.data(), std::min<size_t>(line.size() - 2, 3));
    if (std::atoi(digits) != code) std::abort();
  }
  return 0;
}
