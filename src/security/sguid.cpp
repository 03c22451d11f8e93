// sguid.cpp: random GUIDs and their two text forms.
#include <quenlib/sguid.h>

#include <openssl/rand.h>

#include <string>

namespace QuenLibA500 {

namespace {

// Byte offsets of the dashes in the 36-character form.
bool IsDashAt(size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string Format(std::array<uint8_t, 16> const& b, char const* digits) {
  std::string s;
  s.reserve(36);
  for (size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) s += '-';
    s += digits[b[i] >> 4];
    s += digits[b[i] & 15];
  }
  return s;
}

}  // namespace

SGuid SGuid::Generate() {
  std::array<uint8_t, 16> b{};
  if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1) return SGuid();
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);  // variant 10
  return SGuid(b);
}

bool SGuid::Parse(SAnsiString const& text, SGuid& guid) {
  std::string s(text.getString(), text.getLength());
  if (s.size() == 38) {
    if (s.front() != '{' || s.back() != '}') return false;
    s = s.substr(1, 36);
  }
  if (s.size() != 36) return false;
  std::array<uint8_t, 16> b{};
  size_t out = 0;
  for (size_t i = 0; i < 36; ++i) {
    if (IsDashAt(i)) {
      if (s[i] != '-') return false;
      continue;
    }
    int const hi = HexValue(s[i]);
    int const lo = HexValue(s[++i]);
    if (hi < 0 || lo < 0 || IsDashAt(i)) return false;
    b[out++] = static_cast<uint8_t>(hi * 16 + lo);
  }
  guid = SGuid(b);
  return true;
}

SAnsiString SGuid::ToString() const {
  std::string s(1, '{');
  s.append(Format(m_bytes, "0123456789ABCDEF"));
  s.push_back('}');
  return s.c_str();
}

SAnsiString SGuid::ToPlainString() const { return Format(m_bytes, "0123456789abcdef").c_str(); }

bool SGuid::IsNull() const {
  for (uint8_t v : m_bytes)
    if (v) return false;
  return true;
}

}  // namespace QuenLibA500
