// Host:port texts from arbitrary bytes: splitting never crashes, the result
// code and port agree, the forms that round-trip are joined back to the
// same text by appendPort, and what appendPort joins splits back.
#include <quenlib/csisocket.h>
#include <quenlib/slogger.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

using namespace QuenLibA500;

namespace {

std::string_view view(SAnsiString const& s) { return std::string_view(s.getString(), s.getLength()); }

size_t colons(std::string_view s) {
  size_t n = 0;
  for (char c : s) n += c == ':';
  return n;
}

bool startsWithSocks(std::string_view s) {
  std::string head(s.substr(0, 8));
  for (char& c : head) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return head == "socks://";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  if (text.find('\0') != std::string_view::npos) return 0;  // texts end at their zero
  SAnsiString host;
  int port = 0;
  int const rc = CSISocket::splitNamePortDetailed(SAnsiString(text.data(), static_cast<unsigned>(size)), host, port);
  if (rc < 0 || rc > 2) __builtin_trap();
  if (port != -1 && (port < 1 || port > 65535)) __builtin_trap();
  if (rc == 1 && port != -1) __builtin_trap();
  if (rc != 0 || port == -1) return 0;
  SAnsiString const joined = CSISocket::appendPort(host, port);
  if (joined != CSISocket::appendPort(host, SAnsiString(std::to_string(port).c_str()))) __builtin_trap();
  // A host that still begins with "[" only gains ":" + port (appendPort).
  if (view(host).substr(0, 1) == "[") return 0;
  // host:port, and [IPv6]:port, with the port written as appendPort writes it.
  bool const canonical = !startsWithSocks(text) && text.substr(text.rfind(':') + 1) == std::to_string(port) &&
                         (colons(text) == 1 || (text[0] == '[' && colons(view(host)) >= 2));
  if (canonical && view(joined) != text) __builtin_trap();
  // appendPort brackets hosts of two or more colons only.
  if (colons(view(host)) == 1) return 0;
  SAnsiString again;
  int port2 = 0;
  if (CSISocket::splitNamePortDetailed(joined, again, port2) != 0 || again != host || port2 != port) __builtin_trap();
  return 0;
}
