// nvpairs.cpp: percent-encoding and decoding, and the pair reader.
//
// The encoders write into a scratch array sized for the worst case (three
// bytes out per byte in, six units per wide character) and make the string
// once at the end. The decoders copy runs between "%" and "+" in bulk.
#include <quenlib/nvpairs.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <memory>
#include <string>
#include <type_traits>

#include "diagnostics/assert.h"
#include "diagnostics/trace.h"
#include "web/urlcodec.h"

namespace QuenLibA500 {

namespace urlcodec {

namespace {

char const* const kHexDigits = kHexDigitsUpper;

// Writes the escape of byte c for one table into entry.
void setEscape(EscapeTable& t, unsigned c, bool escape) {
  t.needEncode[c] = escape;
  char* e = t.text[c];
  WChar* w = t.textW[c];
  if (!escape) {
    e[0] = static_cast<char>(c);
    e[1] = 0;
  } else {
    e[0] = '%';
    e[1] = kHexDigits[c >> 4];
    e[2] = kHexDigits[c & 15];
    e[3] = 0;
  }
  for (int i = 0; i < 4; ++i) w[i] = static_cast<unsigned char>(e[i]);
  t.length[c] = static_cast<unsigned char>(std::strlen(e));
}

EscapeTable buildForm() {
  EscapeTable t{};
  for (unsigned c = 0; c < 256; ++c) setEscape(t, c, !(isAlnumByte(c) || c == '.' || c == '_'));
  // The space is flagged (it stops a run) but written as "+".
  unsigned const space = 0x20;
  t.text[space][0] = '+';
  t.text[space][1] = 0;
  t.textW[space][0] = u'+';
  t.textW[space][1] = 0;
  t.length[space] = 1;
  return t;
}

EscapeTable buildTable3() {
  EscapeTable t{};
  for (unsigned c = 0; c < 256; ++c) {
    bool special = std::strchr("%+,={}&$", static_cast<int>(c)) != nullptr && c != 0;
    setEscape(t, c, c < 0x20 || c > 0x7E || special);
  }
  return t;
}

signed char const* buildHexValues() {
  static signed char values[256];
  for (int c = 0; c < 256; ++c) values[c] = -1;
  for (int c = 0; c < 10; ++c) values['0' + c] = static_cast<signed char>(c);
  for (int c = 0; c < 6; ++c) {
    values['A' + c] = static_cast<signed char>(10 + c);
    values['a' + c] = static_cast<signed char>(10 + c);
  }
  return values;
}

}  // namespace

// Function-local statics: built once on first use, and safe when two
// threads get there first together.
EscapeTable const& FormTable() {
  static EscapeTable const table = buildForm();
  return table;
}

EscapeTable const& Table3() {
  static EscapeTable const table = buildTable3();
  return table;
}

signed char const* HexValues() {
  static signed char const* const values = buildHexValues();
  return values;
}

bool LocaleIsByteWise() {
  if (MB_CUR_MAX == 1) return true;
  char const* cs = nl_langinfo(CODESET);
  return cs && std::strcmp(cs, "UTF-8") == 0;
}

size_t EncodeBytes(EscapeTable const& t, unsigned char const* p, size_t n, char* out) {
  char* o = out;
  for (size_t i = 0; i < n; ++i) {
    unsigned c = p[i];
    if (!t.needEncode[c]) {
      *o++ = static_cast<char>(c);
      continue;
    }
    char const* e = t.text[c];
    o[0] = e[0];
    o[1] = e[1];
    o[2] = e[2];
    o += t.length[c];
  }
  return static_cast<size_t>(o - out);
}

// The locale's characters: an ASCII byte is one character; a character
// with a byte of 0x80 or more is escaped whole.
size_t EncodeMultibyte(EscapeTable const& t, char const* p, size_t n, char* out) {
  char* o = out;
  size_t i = 0;
  while (i < n) {
    unsigned char c = static_cast<unsigned char>(p[i]);
    if (c < 0x80) {
      o += EncodeBytes(t, &c, 1, o);
      ++i;
      continue;
    }
    int len = std::mblen(p + i, n - i);
    QL_ASSERT(len <= 6);
    QL_ASSERT(len > 0);
    size_t step = (len <= 0 || len > 6) ? 1 : static_cast<size_t>(len);
    if (step > n - i) step = n - i;
    for (size_t k = 0; k < step; ++k) {
      unsigned b = static_cast<unsigned char>(p[i + k]);
      *o++ = '%';
      *o++ = kHexDigits[b >> 4];
      *o++ = kHexDigits[b & 15];
    }
    i += step;
  }
  return static_cast<size_t>(o - out);
}

SAnsiString EncodeLocaleText(char const* p, size_t n) {
  if (n == 0) return SAnsiString();
  std::unique_ptr<char[]> buf(new char[n * 3]);
  EscapeTable const& t = FormTable();
  size_t len = LocaleIsByteWise()
                   ? EncodeBytes(t, reinterpret_cast<unsigned char const*>(p), n, buf.get())
                   : EncodeMultibyte(t, p, n, buf.get());
  return SAnsiString(buf.get(), static_cast<unsigned>(len));
}

// Writes the escape of one wide character that a table flagged (or that
// is 0x80 and above). Returns the units written (at most 6).
template <class Out>
unsigned EscapeWide(EscapeTable const& t, WChar c, Out* o) {
  if (c < 0x80) {
    WChar const* e = t.textW[c];
    unsigned k = 0;
    for (; k < 3 && e[k]; ++k) o[k] = static_cast<Out>(e[k]);
    return k;
  }
  o[0] = '%';
  if (c < 0x100) {
    o[1] = static_cast<Out>(kHexDigits[c >> 4]);
    o[2] = static_cast<Out>(kHexDigits[c & 15]);
    return 3;
  }
  o[1] = 'u';
  for (int k = 0; k < 4; ++k) o[2 + k] = static_cast<Out>(kHexDigits[(c >> (12 - 4 * k)) & 15]);
  return 6;
}

template <class Out>
size_t EncodeWide(EscapeTable const& t, WChar const* p, Out* out) {
  Out* o = out;
  for (; *p; ++p) {
    WChar c = *p;
    if (c < 0x80 && !t.needEncode[c]) {
      *o++ = static_cast<Out>(c);
      continue;
    }
    o += EscapeWide(t, c, o);
  }
  return static_cast<size_t>(o - out);
}

}  // namespace urlcodec

using namespace urlcodec;

namespace {

// Reach the protected cursor accessor of the string iterators.
struct WideCursor : SWCharString {
  using SWCharString::getCursor;
};
struct AnsiCursor : SAnsiString {
  using SAnsiString::getCursor;
};

size_t WideLength(WChar const* p) {
  size_t n = 0;
  if (p)
    while (p[n]) ++n;
  return n;
}

template <class Str, class Unit>
void AppendEncodedWide(EscapeTable const& t, Str& out, WChar const* text) {
  size_t n = WideLength(text);
  if (n == 0) return;
  std::unique_ptr<Unit[]> buf(new Unit[n * 6]);
  size_t len = EncodeWide<Unit>(t, text, buf.get());
  out.concat(buf.get(), static_cast<unsigned>(len));
}

// One byte of the byte-wise set: does it pass unchanged?
bool BytewisePasses(unsigned c, bool unreservedPass) {
  if (isAlnumByte(c)) return true;
  if (!unreservedPass || c >= 0x80) return false;
  return std::strchr("!#$&*+-./:<>?@_`~", static_cast<int>(c)) != nullptr && c != 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// SDecodedString

bool SDecodedString::concatUntilEncoded(SAsciiString::iterator& from,
                                        SAsciiString::iterator const& to) {
  char const* p = SAsciiString::getCursor(from);
  char const* end = SAsciiString::getCursor(to);
  char const* start = p;
  while (p < end && *p != '%' && *p != '+') ++p;
  concatFromAscii(start, static_cast<unsigned>(p - start));
  if (p == end) {
    from = SAsciiString::iterator(end);
    return false;
  }
  from = SAsciiString::iterator(p);
  return true;
}

// ---------------------------------------------------------------------------
// CNameValuePairs: the reader

CNameValuePairs::~CNameValuePairs() = default;

void CNameValuePairs::AssertValid() const {}

namespace {

// Splits "name=value" (the piece before the first "&") off the remainder.
void SplitNextPair(SAnsiString& rest, SAnsiString& name, SAnsiString& value) {
  char const* p = rest.getString();
  unsigned n = rest.getLength();
  char const* amp = static_cast<char const*>(std::memchr(p, '&', n));
  unsigned pieceLen = amp ? static_cast<unsigned>(amp - p) : n;
  char const* eq = static_cast<char const*>(std::memchr(p, '=', pieceLen));
  if (eq) {
    name = SAnsiString(p, static_cast<unsigned>(eq - p));
    value = SAnsiString(eq + 1, static_cast<unsigned>(p + pieceLen - eq - 1));
  } else {
    name = SAnsiString(p, pieceLen);
    value.empty();
  }
  if (amp)
    rest = SAnsiString(amp + 1, static_cast<unsigned>(p + n - amp - 1));
  else
    rest.empty();
}

SAnsiString Narrow(SWCharString const& w) {
  SAnsiString out;
  out.fromWChar(w.getString());
  return out;
}

}  // namespace

void CNameValuePairs::Next(SAnsiString& name, SAnsiString& value) {
  SAnsiString rawName, rawValue;
  SplitNextPair(m_rest, rawName, rawValue);
  name = URLStrDecode(rawName);
  value = URLStrDecode(rawValue);
  QL_TRACE(SLogger::tl_L, "Name %s Value %sn", name, value);
}

void CNameValuePairs::Next(SAnsiString& name, SAnsiString& value,
                           MBCSCodesetConverter::ExplicitCodeset codeset) {
  SAnsiString rawName, rawValue;
  SplitNextPair(m_rest, rawName, rawValue);
  name = Narrow(URLStrDecodeAndConvert(rawName.getString(), codeset));
  value = Narrow(URLStrDecodeAndConvert(rawValue.getString(), codeset));
  QL_TRACE(SLogger::tl_L, "Name %s Value %sn", name, value);
}

// ---------------------------------------------------------------------------
// Encoders

void CNameValuePairs::generateTable() { (void)FormTable(); }
void CNameValuePairs::generateTable3() { (void)Table3(); }

SAnsiString CNameValuePairs::URLStrEncode(SAnsiString const& text) {
  return EncodeLocaleText(text.getString(), text.getLength());
}

SAnsiString CNameValuePairs::URLStrEncode(char const* text) {
  if (!text) return SAnsiString();
  return EncodeLocaleText(text, std::strlen(text));
}

SWCharString CNameValuePairs::URLStrEncode(SWCharString const& text) {
  SWCharString out;
  URLStrEncodeAppend(out, text.getString());
  return out;
}

void CNameValuePairs::URLStrEncodeAppend(SWCharString& out, WChar const* text) {
  AppendEncodedWide<SWCharString, WChar>(FormTable(), out, text);
}

void CNameValuePairs::URLStrEncodeAppend(SAsciiString& out, WChar const* text) {
  AppendEncodedWide<SAsciiString, char>(FormTable(), out, text);
}

void CNameValuePairs::URLStrEncodeAppend3(SWCharString& out, WChar const* text) {
  AppendEncodedWide<SWCharString, WChar>(Table3(), out, text);
}

void CNameValuePairs::URLStrEncodeAppend3(SAsciiString& out, WChar const* text) {
  AppendEncodedWide<SAsciiString, char>(Table3(), out, text);
}

void CNameValuePairs::EscapeWideChar(WChar c, SWCharString& out) {
  WChar buf[6];
  unsigned n;
  if (c < 0x80) {
    buf[0] = u'%';
    buf[1] = static_cast<WChar>(kHexDigitsUpper[c >> 4]);
    buf[2] = static_cast<WChar>(kHexDigitsUpper[c & 15]);
    n = 3;
  } else {
    n = EscapeWide<WChar>(FormTable(), c, buf);
  }
  out.concat(buf, n);
}

SAnsiString CNameValuePairs::URLStrEncodeBytewise(SAnsiString const& text,
                                                  MBCSCodesetConverter::ExplicitCodeset codeset,
                                                  bool unreservedPass) {
  SSimpleBuffer bytes = MBCSCodesetConverter::TToExplicitCodeset(text, codeset);
  unsigned n = bytes.getNBytes();
  if (n == 0) return SAnsiString();
  unsigned char const* p = bytes;
  std::unique_ptr<char[]> buf(new char[3 * static_cast<size_t>(n) + 1]);
  char* o = buf.get();
  for (unsigned i = 0; i < n; ++i) {
    unsigned c = p[i];
    if (BytewisePasses(c, unreservedPass)) {
      *o++ = static_cast<char>(c);
    } else if (c == ' ' && !unreservedPass) {
      *o++ = '+';
    } else {
      *o++ = '%';
      *o++ = kHexDigitsUpper[c >> 4];
      *o++ = kHexDigitsUpper[c & 15];
    }
  }
  return SAnsiString(buf.get(), static_cast<unsigned>(o - buf.get()));
}

namespace {

SAnsiString ConcatPairsList(char const* first, va_list args) {
  if (!first) return SAnsiString();
  SAnsiString out(first);
  for (char const* s = va_arg(args, char const*); s; s = va_arg(args, char const*)) {
    if (*s && !out.isEmpty()) out += '&';
    out += s;
  }
  return out;
}

SAnsiString EncodePair(char const* name, char const* value) {
  SAnsiString pair = CNameValuePairs::URLStrEncode(name);
  pair += '=';
  pair += CNameValuePairs::URLStrEncode(value);
  return pair;
}

}  // namespace

SAnsiString CNameValuePairs::Encode(char const* name, char const* value, ...) {
  if (!name || !value) return SAnsiString();
  SAnsiString out = EncodePair(name, value);
  va_list args;
  va_start(args, value);
  for (;;) {
    char const* n = va_arg(args, char const*);
    if (!n) break;
    char const* v = va_arg(args, char const*);
    if (!v) break;
    SAnsiString pair = EncodePair(n, v);
    out = ConcatPairs(out.getString(), pair.getString(), static_cast<char const*>(nullptr));
  }
  va_end(args);
  return out;
}

SAnsiString CNameValuePairs::ConcatPairs(char const* first, ...) {
  va_list args;
  va_start(args, first);
  SAnsiString out = ConcatPairsList(first, args);
  va_end(args);
  return out;
}

SAnsiString CNameValuePairs::ConcatUrl(SAnsiString const& a, SAnsiString const& b) {
  if (a.isEmpty()) return b;
  if (b.isEmpty()) return a;
  bool aEnds = a.getString()[a.getLength() - 1] == '&';
  bool bStarts = b.getString()[0] == '&';
  // Both or neither: an "&" goes between them (so "x&" + "&y" gives three).
  if (aEnds != bStarts) return a + b;
  SAnsiString out(a);
  out += '&';
  out += b;
  return out;
}

// ---------------------------------------------------------------------------
// Scanners

void CNameValuePairs::needURLEncode(WChar const*& p) {
  EscapeTable const& t = FormTable();
  while (*p && *p < 0x80 && !t.needEncode[*p]) ++p;
}

void CNameValuePairs::needURLEncode(SWCharString::iterator& it) {
  WChar const* p = WideCursor::getCursor(it);
  if (!p) return;
  needURLEncode(p);
  it = SWCharString::iterator(p);
}

void CNameValuePairs::needURLEncode(SAnsiString::iterator& it) {
  char const* p = AnsiCursor::getCursor(it);
  if (!p) return;
  EscapeTable const& t = FormTable();
  while (*p && static_cast<unsigned char>(*p) < 0x80 && !t.needEncode[static_cast<unsigned char>(*p)])
    ++p;
  it = SAnsiString::iterator(p);
}

void CNameValuePairs::needURLEncode3(WChar const*& p) {
  EscapeTable const& t = Table3();
  while (*p && *p < 0x80 && !t.needEncode[*p]) ++p;
}

void CNameValuePairs::needURLDecode(SWCharString::iterator& it) {
  WChar const* p = WideCursor::getCursor(it);
  if (!p) return;
  while (*p && *p != u'%' && *p != u'+') ++p;
  it = SWCharString::iterator(p);
}

void CNameValuePairs::needURLDecode(char const*& p) {
  while (*p && *p != '%' && *p != '+') ++p;
}

void CNameValuePairs::needURLDecode(char const*& p, char const* end) {
  while (p < end && *p && *p != '%' && *p != '+') ++p;
}

void CNameValuePairs::needURLDecode(WChar const*& p, WChar const* end) {
  while (p < end && *p && *p != u'%' && *p != u'+') ++p;
}

// ---------------------------------------------------------------------------
// Decoders

namespace {

char const kMalformedText[] = "This should never happen, since the data should be encoded correctly";

// What a decoder does with a "%" that starts no valid escape.
enum class Malformed { Fail, DropPercent, KeepPercent };

template <class In>
int HexAt(In c) {
  auto u = static_cast<std::make_unsigned_t<In>>(c);
  return u < 256 ? HexValues()[u] : -1;
}

// The value of the escape at p ("%XX" or "%uXXXX"), its length in *len;
// -1 when it is malformed.
template <class In>
long EscapeValue(In const* p, In const* end, size_t* len) {
  size_t left = static_cast<size_t>(end - p) - 1;
  if (left >= 1 && p[1] == 'u') {
    if (left < 5) return -1;
    long v = 0;
    for (int k = 2; k < 6; ++k) {
      int d = HexAt(p[k]);
      if (d < 0) return -1;
      v = v * 16 + d;
    }
    *len = 6;
    return v | 0x10000;  // marks a wide escape
  }
  if (left < 2) return -1;
  int hi = HexAt(p[1]), lo = HexAt(p[2]);
  if (hi < 0 || lo < 0) return -1;
  *len = 3;
  return hi * 16 + lo;
}

// The decoding loop: copies runs, turns "+" into a space and escapes into
// bytes (sink.byte) or wide characters (sink.wide). False only in Fail
// mode or when the sink refuses a value.
template <class In, class Sink>
bool DecodeLoop(In const* p, In const* end, Sink& sink, Malformed mode) {
  while (p < end) {
    In const* run = p;
    while (p < end && *p != '%' && *p != '+') ++p;
    if (p > run) sink.run(run, static_cast<size_t>(p - run));
    if (p == end) break;
    if (*p == '+') {
      sink.byte(' ');
      ++p;
      continue;
    }
    size_t len = 0;
    long v = EscapeValue(p, end, &len);
    if (v >= 0x10000) {
      if (!sink.wide(static_cast<unsigned>(v & 0xFFFF))) return false;
      p += len;
      continue;
    }
    if (v >= 0) {
      sink.byte(static_cast<unsigned>(v));
      p += len;
      continue;
    }
    if (mode == Malformed::Fail) return false;
    QL_REPORT(kMalformedText, static_cast<char const*>(nullptr));
    if (mode == Malformed::KeepPercent) sink.run(p, 1);
    ++p;
  }
  return true;
}

struct WideSink {
  std::u16string buf;
  template <class In>
  void run(In const* p, size_t n) {
    for (size_t i = 0; i < n; ++i)
      buf.push_back(static_cast<WChar>(static_cast<std::make_unsigned_t<In>>(p[i])));
  }
  void byte(unsigned v) { buf.push_back(static_cast<WChar>(v)); }
  bool wide(unsigned v) {
    buf.push_back(static_cast<WChar>(v));
    return true;
  }
  SWCharString str() const { return SWCharString(buf.data(), static_cast<unsigned>(buf.size())); }
};

// Bytes; a wide escape becomes the character in the locale's code page
// ("?" when it has none), or, with bytesOnly, is refused above 0xFF.
struct ByteSink {
  std::string buf;
  bool bytesOnly = false;
  void run(char const* p, size_t n) { buf.append(p, n); }
  void byte(unsigned v) { buf.push_back(static_cast<char>(v)); }
  bool wide(unsigned v) {
    if (bytesOnly) {
      if (v > 0xFF) return false;
      byte(v);
      return true;
    }
    char mb[16];
    int n = CodesetConverter::ucs2tomb(mb, sizeof mb, static_cast<unsigned short>(v));
    if (n <= 0) {
      buf.push_back('?');
    } else {
      buf.append(mb, static_cast<size_t>(n));
    }
    return true;
  }
};

template <class In>
In const* FindEncoded(In const* p, In const* end) {
  while (p < end && *p != '%' && *p != '+') ++p;
  return p;
}

// The units of a wide C text, at most `length`.
WChar const* WideEnd(WChar const* in, unsigned length) {
  WChar const* end = in;
  while (end < in + length && *end) ++end;
  return end;
}

}  // namespace

namespace {

// Decodes straight into the buffer of the result string. The output is
// never longer than the input: "%XX" gives 1 byte for 3, "+" and a kept
// "%" 1 for 1, and "%uXXXX" at most 6 (the longest locale character) for 6.
struct DecodedAnsi : SAnsiString {
  char* reserve(unsigned n) {
    setBufferSize(n);
    return getString();
  }
  void finish(unsigned n) { terminateBuffer(n); }
};

// The slow cases at a "%": "%uXXXX", or a malformed escape (reported, the
// "%" kept). Returns the input consumed.
size_t DecodeSpecialEscape(char const* p, char const* end, char*& o) {
  size_t len = 0;
  long v = EscapeValue(p, end, &len);
  if (v >= 0x10000) {
    ByteSink sink;
    sink.wide(static_cast<unsigned>(v & 0xFFFF));
    size_t k = sink.buf.size() <= 6 ? sink.buf.size() : 1;
    std::memcpy(o, sink.buf.data(), k);
    o += k;
    return len;
  }
  QL_REPORT(kMalformedText, static_cast<char const*>(nullptr));
  *o++ = '%';
  return 1;
}

// The same, through a copy of the output cursor: the decoding loops never
// take the address of theirs, so it stays in a register.
inline size_t SpecialEscape(char const* p, char const* end, char*& o) {
  char* cursor = o;
  size_t used = DecodeSpecialEscape(p, end, cursor);
  o = cursor;
  return used;
}

}  // namespace

SAnsiString urlcodec::DecodeLocaleText(char const* p, size_t n) {
  char const* end = p + n;
  if (FindEncoded(p, end) == end) return SAnsiString(p, static_cast<unsigned>(n));
  DecodedAnsi out;
  char* const start = out.reserve(static_cast<unsigned>(n));
  char* o = start;
  signed char const* hex = HexValues();
  // While three bytes remain, each step reads the byte and the two after it
  // and writes the escape's value at a well-formed "%XX", else the byte
  // itself ("+" read as a space); only a malformed or "%u" escape leaves
  // this path. (A branch-free step was tried: it makes the next position
  // wait for this step's loads and ran four times slower.)
  while (end - p >= 3) {
    unsigned char c = static_cast<unsigned char>(p[0]);
    int hi = hex[static_cast<unsigned char>(p[1])];
    int lo = hex[static_cast<unsigned char>(p[2])];
    bool escape = c == '%';
    if (escape && (hi | lo) < 0) {
      p += SpecialEscape(p, end, o);
      continue;
    }
    char plain = c == '+' ? ' ' : static_cast<char>(c);
    *o++ = escape ? static_cast<char>(hi * 16 + lo) : plain;
    p += escape ? 3 : 1;
  }
  while (p < end) {
    char c = *p;
    if (c != '%' && c != '+') {
      *o++ = c;
      ++p;
      continue;
    }
    if (c == '+') {
      *o++ = ' ';
      ++p;
      continue;
    }
    if (end - p >= 3) {
      int hi = hex[static_cast<unsigned char>(p[1])];
      int lo = hex[static_cast<unsigned char>(p[2])];
      if ((hi | lo) >= 0) {
        *o++ = static_cast<char>(hi * 16 + lo);
        p += 3;
        continue;
      }
    }
    p += SpecialEscape(p, end, o);
  }
  out.finish(static_cast<unsigned>(o - start));
  return out;
}

bool CNameValuePairs::internalURLStrDecode(SWCharString& out, WChar const* in,
                                           unsigned int length, bool lenient) {
  if (!in) {
    out.empty();
    return true;
  }
  WChar const* end = WideEnd(in, length);
  if (FindEncoded(in, end) == end) {
    out = SWCharString(in, static_cast<unsigned>(end - in));
    return true;
  }
  WideSink sink;
  sink.buf.reserve(static_cast<size_t>(end - in));
  if (!DecodeLoop(in, end, sink, lenient ? Malformed::DropPercent : Malformed::Fail)) return false;
  out = sink.str();
  return true;
}

SAnsiString CNameValuePairs::URLStrDecode(SAnsiString const& text) {
  return DecodeLocaleText(text.getString(), text.getLength());
}

SWCharString CNameValuePairs::URLStrDecode(SWCharString const& text) {
  SWCharString out;
  internalURLStrDecode(out, text.getString(), text.getLength(), true);
  return out;
}

SDecodedString CNameValuePairs::URLStrDecode(SAsciiString::iterator first,
                                             SAsciiString::iterator last) {
  char const* p = SAsciiString::getCursor(first);
  char const* end = SAsciiString::getCursor(last);
  if (!p || !end || end <= p) return SDecodedString();
  WideSink sink;
  sink.buf.reserve(static_cast<size_t>(end - p));
  DecodeLoop(p, end, sink, Malformed::DropPercent);
  return SDecodedString(sink.str());
}

bool CNameValuePairs::tryURLStrDecode(SWCharString& out, WChar const* in, unsigned int length) {
  return internalURLStrDecode(out, in, length, false);
}

bool CNameValuePairs::tryURLStrDecode(SAsciiString& out, char const* in, unsigned int length,
                                      bool* decoded) {
  if (decoded) *decoded = false;
  if (!in) {
    out.empty();
    return true;
  }
  char const* end = static_cast<char const*>(std::memchr(in, 0, length));
  if (!end) end = in + length;
  if (FindEncoded(in, end) == end) {
    out = SAsciiString(in, static_cast<unsigned>(end - in));
    return true;
  }
  if (decoded) *decoded = true;
  ByteSink sink;
  sink.bytesOnly = true;
  if (!DecodeLoop(in, end, sink, Malformed::Fail)) return false;
  out = SAsciiString(sink.buf.data(), static_cast<unsigned>(sink.buf.size()));
  return true;
}

// ---- decoding with a code set

namespace {

// Lenient UTF-8: each ill-formed sequence gives U+FFFD and decoding goes
// on with the next byte.
void AppendUtf8(std::u16string& out, unsigned char const* p, size_t n) {
  size_t i = 0;
  while (i < n) {
    unsigned c = p[i];
    if (c < 0x80) {
      out.push_back(static_cast<WChar>(c));
      ++i;
      continue;
    }
    unsigned need = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : 1;
    unsigned cp = c & (0x3F >> need);
    bool ok = c >= 0xC2 && c < 0xF5 && i + need < n;
    for (unsigned k = 1; ok && k <= need; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) ok = false;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are ill-formed.
    if (ok && ((need == 2 && cp < 0x800) || (need == 3 && (cp < 0x10000 || cp > 0x10FFFF)) ||
               (cp >= 0xD800 && cp <= 0xDFFF)))
      ok = false;
    if (!ok) {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<WChar>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<WChar>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<WChar>(cp));
    }
    i += need + 1;
  }
}

// Locale bytes without zero bytes to UTF-16.
void AppendLocale(std::u16string& out, char const* p, size_t n) {
  std::string piece(p, n);
  size_t units = CodesetConverter::mbstoucs2(nullptr, piece.c_str(), static_cast<unsigned>(-1));
  size_t base = out.size();
  out.resize(base + units + 1);
  size_t got = CodesetConverter::mbstoucs2(&out[base], piece.c_str(), static_cast<unsigned>(units + 1));
  out.resize(base + got);
}

// Bytes in `cs` to UTF-16, zero bytes kept as zero units.
void AppendConverted(std::u16string& out, std::string const& bytes,
                     MBCSCodesetConverter::ExplicitCodeset cs) {
  size_t start = 0;
  while (start <= bytes.size()) {
    size_t zero = bytes.find('\0', start);
    size_t stop = zero == std::string::npos ? bytes.size() : zero;
    char const* p = bytes.data() + start;
    size_t n = stop - start;
    if (n > 0) {
      if (cs == MBCSCodesetConverter::ECS_UTF8) {
        AppendUtf8(out, reinterpret_cast<unsigned char const*>(p), n);
      } else if (cs == MBCSCodesetConverter::ECS_Native) {
        AppendLocale(out, p, n);
      } else {
        std::u16string part;
        if (MBCSCodesetConverter::CodePageToUTF16(cs, p, n, part)) out += part;
        else AppendLocale(out, p, n);
      }
    }
    if (zero == std::string::npos) break;
    out.push_back(0);
    start = zero + 1;
  }
}

}  // namespace

SWCharString CNameValuePairs::URLStrDecodeAndConvert(char const* text,
                                                     MBCSCodesetConverter::ExplicitCodeset codeset) {
  if (!text) return SWCharString();
  size_t n = std::strlen(text);
  char const* end = text + n;
  std::u16string out;
  std::string bytes;
  bytes.reserve(n + 1);
  char const* p = text;
  while (p < end) {
    char c = *p;
    if (c == '+') {
      bytes.push_back(' ');
      ++p;
      continue;
    }
    if (c != '%') {
      bytes.push_back(c);
      ++p;
      continue;
    }
    if (end - p >= 6 && p[1] == 'u') {
      size_t len = 0;
      long v = EscapeValue(p, end, &len);
      if (v >= 0x10000) {
        AppendConverted(out, bytes, codeset);
        bytes.clear();
        out.push_back(static_cast<WChar>(v & 0xFFFF));
        p += len;
        continue;
      }
      bytes.append(p, 2);  // "%u" without four digits stays as it is
      p += 2;
      continue;
    }
    size_t len = 0;
    long v = p[1] == 'u' ? -1 : EscapeValue(p, end, &len);
    if (v >= 0) {
      bytes.push_back(static_cast<char>(v));
      p += len;
    } else {
      bytes.push_back('%');
      ++p;
    }
  }
  AppendConverted(out, bytes, codeset);
  return SWCharString(out.data(), static_cast<unsigned>(out.size()));
}

}  // namespace QuenLibA500
