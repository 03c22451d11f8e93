// The line socket's GetLine fed arbitrary peer bytes through a loopback
// connection that the peer then closes. Every line returned must be the
// next CR LF-terminated piece of the input (an LF alone belongs to the
// line; a zero byte ends its C text), a line of more than 2,046 bytes must
// end the reading, and the end of the bytes must give false.
#include "loopback_peer.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace QuenLibA500;

namespace {
void check(bool holds) {
  if (!holds) std::abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size > 60000) return 0;  // fits the socket buffers: one thread writes all first
  CSITcpSocket client("127.0.0.1", fuzzpeer::loopback().port);
  fuzzpeer::feed(client, data, size);

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
