// Pair maps and the pair reader on arbitrary bytes: no crash, and a map
// that parsed writes out (encoded) to a text that parses to the same map.
#include <quenlib/nvpairs.h>
#include <quenlib/slogger.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <string>

using namespace QuenLibA500;

namespace {

void Ignore(void*, char const*, int, char const*, char const*) {}

bool Setup() {
  std::setlocale(LC_ALL, "C.UTF-8");
  SetAssertObserver(&Ignore, nullptr);
  SLogger::SetAssertEnabled(false);
  return true;
}

SAnsiString Write(CMapNameValuePair& map) {
  SAnsiString out;
  for (auto it = map.Begin(); it != map.End(); ++it) {
    if (!out.isEmpty()) out += '&';
    out += CNameValuePairs::URLStrEncode(it.GetKey().GetString());
    out += '=';
    out += CNameValuePairs::URLStrEncode(it.GetValue());
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static bool ready = Setup();
  (void)ready;
  SAnsiString text(reinterpret_cast<char const*>(data), static_cast<unsigned>(size));
  CMapNameValuePair map;
  bool ok = map.ParseParameter(text);
  SAsciiString ascii(reinterpret_cast<char const*>(data), static_cast<unsigned>(size));
  CMapNameValuePair viaAscii;
  (void)viaAscii.ParseParameter(SAsciiString::iterator(ascii));

  CNameValuePairs reader(text);
  SAnsiString name, value;
  for (int guard = 0; reader.HasMorePairs(); ++guard) {
    if (guard > static_cast<int>(size) + 1) __builtin_trap();  // each Next consumes
    reader.Next(name, value);
  }

  // Keys with a zero byte cannot travel through URLStrEncode(SAnsiString)
  // unchanged only if the encoder stopped there; it does not, so every map
  // must come back whole.
  SAnsiString written = Write(map);
  CMapNameValuePair again;
  if (!again.ParseParameter(written) && !map.IsEmpty()) __builtin_trap();
  if (!(again == map)) __builtin_trap();
  (void)ok;
  return 0;
}
