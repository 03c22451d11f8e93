// sstringconv.cpp: the conversion members of SString_t.
//
// One definition per member serves the three instantiations; the flavour
// decides with `if constexpr`:
//  - <char,0> holds locale text: it goes to UTF-16 and back through the
//    locale rules ("?" for what cannot be represented);
//  - <char,1> holds ASCII: into it, any unit above 127 refuses the whole
//    text; out of it, bytes are copied (toBrim sign-extends each byte, a
//    kept quirk; toWChar, toUChar and toUTF8 widen bytes as unsigned);
//  - <WChar,1> holds UTF-16 units.
// The members are instantiated explicitly at the end of the file.
#include <quenlib/UTFConverter.h>
#include <quenlib/codesetconverter.h>
#include <quenlib/sstring.h>

#include "diagnostics/assert.h"
#include "text/localeconv.h"
#include "text/utfcore.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace QuenLibA500 {
namespace {

constexpr unsigned kTooSmall = static_cast<unsigned>(-1);
constexpr unsigned kAll = static_cast<unsigned>(-1);

template <class Unit>
size_t unitLength(Unit const* p, unsigned n) {
  if (p == nullptr) return 0;
  size_t i = 0;
  while ((n == kAll || i < n) && p[i] != 0) ++i;
  return i;
}

template <class Unit>
bool allAscii(Unit const* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (static_cast<uint32_t>(static_cast<std::make_unsigned_t<Unit>>(p[i])) > 127) return false;
  return true;
}

// The text of an ASCII-flavour string as UTF-16, bytes widened unsigned.
std::u16string widenBytes(char const* p, size_t n) {
  std::u16string out(n, u'\0');
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<unsigned char>(p[i]);
  return out;
}

}  // namespace

// The content as UTF-16 units (for the wide and UTF-8 directions).
template <class Unit, int Flag>
static std::u16string asUtf16(SString_t<Unit, Flag> const& s) {
  if constexpr (sizeof(Unit) == 2) {
    return std::u16string(s.getString(), s.getLength());
  } else if constexpr (Flag == 0) {
    return localeconv::toUtf16(s.getString(), s.getLength());
  } else {
    return widenBytes(s.getString(), s.getLength());
  }
}

// ---- sizes

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::getNBytesForAscii() const {
  return getLength() + 1;
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::getNBytesForMBCS() const {
  if constexpr (sizeof(Unit) == 1) {
    return getLength() + 1;
  } else {
    return static_cast<unsigned>(CodesetConverter::ucs2tombs(nullptr, getString(), 0) + 1);
  }
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::getNBytesForWChar() const {
  if constexpr (Flag == 0) {
    return static_cast<unsigned>((asUtf16(*this).size() + 1) * sizeof(WChar));
  } else {
    return (getLength() + 1) * static_cast<unsigned>(sizeof(WChar));
  }
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::getNBytesForUChar() const {
  return getNBytesForWChar();
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::getNBytesForBrim() const {
  return getNBytesForWChar();
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::getNBytesForUTF8() const {
  std::u16string const w = asUtf16(*this);
  return CUTFConverter::UTF16ToUTF8Length(w.c_str());
}

// ---- to

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::toAscii(char* out, unsigned size) const {
  if (out == nullptr) {
    QL_REPORT("outBuffer!=NULL", static_cast<char const*>(nullptr));
    return kTooSmall;
  }
  if (size < getNBytesForAscii()) return kTooSmall;
  unsigned const n = std::min(getLength(), size - 1);
  Unit const* p = getString();
  for (unsigned i = 0; i < n; ++i) {
    auto const u = static_cast<uint32_t>(static_cast<std::make_unsigned_t<Unit>>(p[i]));
    if (u > 127) {
      QL_REPORT("0", "Not a valid ASCII string in SString");
      out[i] = '?';
      continue;
    }
    out[i] = static_cast<char>(u);
  }
  out[n] = 0;
  return n + 1;
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::toMBCS(char* out, unsigned size) const {
  if (out == nullptr) {
    QL_REPORT("outBuffer!=NULL", static_cast<char const*>(nullptr));
    return kTooSmall;
  }
  if constexpr (sizeof(Unit) == 1) {
    if (size < getLength() + 1) return kTooSmall;
    std::memcpy(out, getString(), getLength() + 1);
    return getLength() + 1;
  } else {
    std::string const mb = localeconv::fromUtf16(getString(), getLength());
    if (size < mb.size() + 1) return kTooSmall;
    std::memcpy(out, mb.c_str(), mb.size() + 1);
    return static_cast<unsigned>(mb.size() + 1);
  }
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::toWChar(WChar* out, unsigned size) const {
  if (out == nullptr) {
    QL_REPORT("outBuffer!=NULL", static_cast<char const*>(nullptr));
    return kTooSmall;
  }
  if constexpr (sizeof(Unit) == 2) {
    if (size < getNBytesForWChar()) return kTooSmall;
    return static_cast<unsigned>(
        CodesetConverter::wcstoucs2(out, getString(), size / sizeof(WChar)) + 1);
  } else {
    std::u16string const w = asUtf16(*this);
    if (size < (w.size() + 1) * sizeof(WChar)) return kTooSmall;
    std::memcpy(out, w.c_str(), (w.size() + 1) * sizeof(WChar));
    return static_cast<unsigned>(w.size() + 1);
  }
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::toUChar(WChar* out, unsigned size) const {
  return toWChar(out, size);
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::toBrim(WChar* out, unsigned size) const {
  if constexpr (sizeof(Unit) == 1 && Flag == 1) {
    if (out == nullptr) {
      QL_REPORT("outBuffer!=NULL", static_cast<char const*>(nullptr));
      return kTooSmall;
    }
    if (size < getNBytesForBrim()) return kTooSmall;
    // Each byte as its signed value: 0x80..0xFF become 0xFF80..0xFFFF.
    char const* p = getString();
    unsigned const n = getLength();
    for (unsigned i = 0; i < n; ++i)
      out[i] = static_cast<WChar>(static_cast<int16_t>(static_cast<signed char>(p[i])));
    out[n] = 0;
    return n + 1;
  } else {
    return toWChar(out, size);
  }
}

template <class Unit, int Flag>
unsigned SString_t<Unit, Flag>::toUTF8(unsigned char* out, unsigned size) const {
  if (out == nullptr) {
    QL_REPORT("outBuffer!=NULL", static_cast<char const*>(nullptr));
    return kTooSmall;
  }
  std::u16string const w = asUtf16(*this);
  std::vector<unsigned char> tmp(w.size() * 3 + 1);
  utf::Outcome const r = utf::utf16ToUtf8(w.data(), w.size(), tmp.data(), tmp.size());
  if (r.result != utf::Result::ok || size < r.written + 1) return kTooSmall;
  std::memcpy(out, tmp.data(), r.written);
  out[r.written] = 0;
  return static_cast<unsigned>(r.written + 1);
}

// ---- from

template <class Unit, int Flag>
bool SString_t<Unit, Flag>::fromAscii(char const* p, unsigned n) {
  if (n == kAll) n = p ? static_cast<unsigned>(std::strlen(p)) : 0;
  // n units: the bytes up to n or a zero byte, zeros after it.
  std::vector<Unit> units(size_t(n) + 1, Unit(0));
  for (unsigned i = 0; i < n && p[i] != 0; ++i) {
    if constexpr (sizeof(Unit) == 2) {
      units[i] = static_cast<Unit>(static_cast<unsigned char>(p[i]));
    } else {
      units[i] = p[i];
    }
  }
  *this = SString_t(units.data(), n);
  return true;
}

template <class Unit, int Flag>
bool SString_t<Unit, Flag>::fromMBCS(char const* p) {
  size_t const n = unitLength(p, kAll);
  if constexpr (sizeof(Unit) == 1 && Flag == 1) {
    if (!allAscii(p, n)) {
      QL_REPORT("0", "Not a valid ASCII string in MBCS");
      return false;
    }
  }
  if constexpr (sizeof(Unit) == 1) {
    *this = SString_t(p ? p : "", static_cast<unsigned>(n));
  } else {
    std::u16string const w = localeconv::toUtf16(p, n);
    *this = SString_t(w.c_str(), static_cast<unsigned>(w.size()));
  }
  return true;
}

// UTF-16 units into this string, with the ASCII flavour's refusal.
template <class Unit, int Flag>
static bool assignUtf16(SString_t<Unit, Flag>& s, WChar const* p, size_t n, char const* refusal) {
  if constexpr (sizeof(Unit) == 2) {
    s = SString_t<Unit, Flag>(p ? p : u"", static_cast<unsigned>(n));
  } else if constexpr (Flag == 1) {
    if (!allAscii(p, n)) {
      QL_REPORT("0", refusal);
      return false;
    }
    std::string bytes(n, '\0');
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>(p[i] & 0xFF);
    s = SString_t<Unit, Flag>(bytes.c_str(), static_cast<unsigned>(n));
  } else {
    std::string const mb = localeconv::fromUtf16(p, n);
    s = SString_t<Unit, Flag>(mb.c_str(), static_cast<unsigned>(mb.size()));
  }
  return true;
}

template <class Unit, int Flag>
bool SString_t<Unit, Flag>::fromWChar(WChar const* p) {
  return assignUtf16(*this, p, unitLength(p, kAll), "Not a valid ASCII string in WChar");
}

template <class Unit, int Flag>
bool SString_t<Unit, Flag>::fromUChar(WChar const* p, unsigned n) {
  return assignUtf16(*this, p, unitLength(p, n), "Not a valid ASCII string in Brim");
}

template <class Unit, int Flag>
bool SString_t<Unit, Flag>::fromBrim(WChar const* p) {
  return assignUtf16(*this, p, unitLength(p, kAll), "Not a valid ASCII string in Brim");
}

template <class Unit, int Flag>
bool SString_t<Unit, Flag>::fromUTF8(unsigned char const* p) {
  return fromUTF8(p, kAll);
}

template <class Unit, int Flag>
bool SString_t<Unit, Flag>::fromUTF8(unsigned char const* p, unsigned n) {
  size_t const len = unitLength(p, n);
  std::u16string w(len, u'\0');
  utf::Outcome const r = utf::utf8ToUtf16(p, len, w.data(), w.size());
  if (r.result != utf::Result::ok) return false;
  return assignUtf16(*this, w.data(), r.written, "Not a valid ASCII string in Brim");
}

#define QL_INSTANTIATE_CONVERSIONS(U, F)                                        \
  template unsigned SString_t<U, F>::getNBytesForAscii() const;                 \
  template unsigned SString_t<U, F>::getNBytesForMBCS() const;                  \
  template unsigned SString_t<U, F>::getNBytesForWChar() const;                 \
  template unsigned SString_t<U, F>::getNBytesForUChar() const;                 \
  template unsigned SString_t<U, F>::getNBytesForUTF8() const;                  \
  template unsigned SString_t<U, F>::getNBytesForBrim() const;                  \
  template unsigned SString_t<U, F>::toAscii(char*, unsigned) const;            \
  template unsigned SString_t<U, F>::toMBCS(char*, unsigned) const;             \
  template unsigned SString_t<U, F>::toWChar(WChar*, unsigned) const;           \
  template unsigned SString_t<U, F>::toUChar(WChar*, unsigned) const;           \
  template unsigned SString_t<U, F>::toBrim(WChar*, unsigned) const;            \
  template unsigned SString_t<U, F>::toUTF8(unsigned char*, unsigned) const;    \
  template bool SString_t<U, F>::fromAscii(char const*, unsigned);              \
  template bool SString_t<U, F>::fromMBCS(char const*);                         \
  template bool SString_t<U, F>::fromWChar(WChar const*);                       \
  template bool SString_t<U, F>::fromUChar(WChar const*, unsigned);             \
  template bool SString_t<U, F>::fromBrim(WChar const*);                        \
  template bool SString_t<U, F>::fromUTF8(unsigned char const*);                \
  template bool SString_t<U, F>::fromUTF8(unsigned char const*, unsigned);

QL_INSTANTIATE_CONVERSIONS(char, 0)
QL_INSTANTIATE_CONVERSIONS(char, 1)
QL_INSTANTIATE_CONVERSIONS(WChar, 1)

#undef QL_INSTANTIATE_CONVERSIONS

}  // namespace QuenLibA500
