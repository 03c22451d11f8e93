// sguid.h: globally unique identifiers.
//
// `SGuid` is 16 bytes. `Generate` makes a random one (version 4, variant
// 10). Products store the braced upper-case form; the plain lower-case form
// is what Linux tools print. `Parse` reads both:
//
//   SGuid id = SGuid::Generate();
//   SAnsiString stored = id.ToString();       // "{1B4E28BA-2FA1-41D2-883F-0016D3CCA427}"
//   SAnsiString plain = id.ToPlainString();   // "1b4e28ba-2fa1-41d2-883f-0016d3cca427"
//   SGuid back;
//   if (SGuid::Parse(stored, back) && back == id) ...
//
// GUIDs compare and order by their bytes; the null GUID is all zeros.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <array>
#include <cstdint>

namespace QuenLibA500 {

class QUENLIB_API SGuid {
 public:
  SGuid() = default;
  explicit SGuid(std::array<uint8_t, 16> const& bytes) : m_bytes(bytes) {}

  // A random version-4 GUID; the null GUID only when no random bytes could
  // be had.
  static SGuid Generate();
  // "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" or the same without braces, in
  // either letter case; false (and the GUID unchanged) for anything else.
  static bool Parse(SAnsiString const& text, SGuid& guid);

  SAnsiString ToString() const;       // braced, upper case
  SAnsiString ToPlainString() const;  // no braces, lower case
  bool IsNull() const;
  int Version() const { return m_bytes[6] >> 4; }
  std::array<uint8_t, 16> const& Bytes() const { return m_bytes; }

  friend bool operator==(SGuid const& a, SGuid const& b) { return a.m_bytes == b.m_bytes; }
  friend bool operator!=(SGuid const& a, SGuid const& b) { return a.m_bytes != b.m_bytes; }
  friend bool operator<(SGuid const& a, SGuid const& b) { return a.m_bytes < b.m_bytes; }

 private:
  std::array<uint8_t, 16> m_bytes{};
};

}  // namespace QuenLibA500
