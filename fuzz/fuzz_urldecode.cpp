// Every URL decoder on arbitrary bytes: no crash, no read past the input,
// and encode-then-decode gives back the bytes (form table, wide form).
#include <quenlib/nvpairs.h>
#include <quenlib/slogger.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

void Ignore(void*, char const*, int, char const*, char const*) {}

bool Setup() {
  std::setlocale(LC_ALL, "C.UTF-8");
  SetAssertObserver(&Ignore, nullptr);
  SLogger::SetAssertEnabled(false);
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The plain byte-at-a-time decoding, for texts whose every "%" starts a
// well-formed "%XX"; false for any other text.
bool ReferenceDecode(std::string const& in, std::string& out) {
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] == '+') {
      out += ' ';
    } else if (in[i] != '%') {
      out += in[i];
    } else if (i + 2 < in.size() && HexDigit(in[i + 1]) >= 0 && HexDigit(in[i + 2]) >= 0) {
      out += static_cast<char>(HexDigit(in[i + 1]) * 16 + HexDigit(in[i + 2]));
      i += 2;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static bool ready = Setup();
  (void)ready;
  // Exact-size copies, so that ASan catches any read past the end.
  std::vector<char> bytes(data, data + size);
  std::string text(bytes.begin(), bytes.end());
  std::string cstr(text.c_str());  // up to the first zero byte

  SAnsiString ansi(bytes.data(), static_cast<unsigned>(size));
  SAnsiString fast = CNameValuePairs::URLStrDecode(ansi);
  std::string expected;
  if (ReferenceDecode(std::string(ansi.getString(), ansi.getLength()), expected) && std::string(fast.getString(), fast.getLength()) != expected) {
    __builtin_trap();
  }
  SAsciiString ascii(bytes.data(), static_cast<unsigned>(size));
  (void)CNameValuePairs::URLStrDecode(SAsciiString::iterator(ascii),
                                      SAsciiString::iterator(ascii.getString() + ascii.getLength()));
  SAsciiString strictOut;
  bool decoded = false;
  (void)CNameValuePairs::tryURLStrDecode(strictOut, bytes.data(), static_cast<unsigned>(size), &decoded);
  (void)CNameValuePairs::URLStrDecodeAndConvert(cstr.c_str(), MBCSCodesetConverter::ECS_UTF8);
  (void)CNameValuePairs::URLStrDecodeAndConvert(cstr.c_str(), MBCSCodesetConverter::ECS_ShiftJIS);

  std::vector<WChar> wide(size / 2);
  if (!wide.empty()) std::memcpy(wide.data(), data, wide.size() * 2);
  SWCharString wout;
  (void)CNameValuePairs::tryURLStrDecode(wout, wide.data(), static_cast<unsigned>(wide.size()));
  SWCharString wtext(wide.data(), static_cast<unsigned>(wide.size()));
  (void)CNameValuePairs::URLStrDecode(wtext);

  // Round trips: the narrow form on the text up to the first zero byte,
  // the wide form on the units up to the first zero unit.
  SAnsiString enc = CNameValuePairs::URLStrEncode(cstr.c_str());
  SAnsiString dec = CNameValuePairs::URLStrDecode(enc);
  if (std::string(dec.getString(), dec.getLength()) != cstr) __builtin_trap();
  SWCharString wenc = CNameValuePairs::URLStrEncode(wtext);
  SWCharString wdec;
  if (!CNameValuePairs::tryURLStrDecode(wdec, wenc.getString(), wenc.getLength())) __builtin_trap();
  SWCharString wprefix(wtext.getString());
  if (!(wdec == wprefix)) __builtin_trap();
  return 0;
}
