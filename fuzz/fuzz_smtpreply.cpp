// Feeds arbitrary bytes, as a confused or hostile mail server would send
// them, through a loopback connection to the SMTP reply reader, then closes
// the connection. The reader must end with a code of 100 to 999 or the
// read failure, and the reply text must be the lines it consumed.
#include <quenlib/csismtpmail.h>
#include <quenlib/csitcpsocket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "loopback_peer.h"

using namespace QuenLibA500;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  // What fits in the socket buffers, so one thread can write all first;
  // below the reader's limit on kept reply text.
  if (size > 60000) return 0;
  CSITcpSocket client("127.0.0.1", fuzzpeer::loopback().port);
  fuzzpeer::feed(client, data, size);

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
