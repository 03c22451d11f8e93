// Integer text conversion: value to text, text to value (string and
// iterator forms), the wrappers' limits, and a round-trip property over
// every integer type and radix 2..36.
#include <quenlib/stringconv.h>

#include "text_support.h"

#include <cctype>
#include <cstdint>
#include <limits>
#include <random>

using namespace QuenLibA500;

namespace {

std::string Narrow(WChar const* w) {
  std::string s;
  for (; *w; ++w) s += static_cast<char>(*w);
  return s;
}

SWCharString Wide(std::string const& s) {
  std::u16string w(s.begin(), s.end());
  return SWCharString(w.c_str(), static_cast<unsigned>(w.size()));
}

class AssertWatch : public ::testing::Test {
 protected:
  quentest::AssertLog log;
};

// Writes value with both unit types and checks both agree.
template <class T>
std::string From(T value, int radix, int32_t* count = nullptr) {
  char a[kStringConvUnits];
  WChar w[kStringConvUnits];
  int32_t n = StringConvFromInteger(a, value, radix);
  int32_t m = StringConvFromInteger(w, value, radix);
  EXPECT_EQ(n, m);
  EXPECT_EQ(std::string(a), Narrow(w));
  EXPECT_EQ(static_cast<size_t>(n), std::string(a).size());
  if (count) *count = n;
  return std::string(a);
}

// ---------------------------------------------------------------------------
// Text to value, the string form

struct ParseCase {
  char const* text;
  int radix;
  bool ok;
  int32_t value;
};

class StringConvToInteger32 : public ::testing::TestWithParam<ParseCase> {};

TEST_P(StringConvToInteger32, AnsiAndWideAgree) {
  ParseCase const& c = GetParam();
  int32_t a = 99, w = 99;
  EXPECT_EQ(SAnsiStringConv::FromString(c.text, a, c.radix), c.ok) << c.text;
  EXPECT_EQ(a, c.ok ? c.value : 0) << c.text;
  EXPECT_EQ(SWCharStringConv::FromString(Wide(c.text), w, c.radix), c.ok) << c.text;
  EXPECT_EQ(w, c.ok ? c.value : 0) << c.text;
}

INSTANTIATE_TEST_SUITE_P(
    Rules, StringConvToInteger32,
    ::testing::Values(
        ParseCase{"", 10, true, 0}, ParseCase{"-", 10, true, 0}, ParseCase{"0", 10, true, 0},
        ParseCase{"42", 10, true, 42}, ParseCase{"-42", 10, true, -42},
        ParseCase{"+42", 10, false, 0}, ParseCase{"12abc", 10, false, 0},
        ParseCase{"12 abc", 10, true, 12}, ParseCase{"12 34", 10, true, 12},
        ParseCase{"3.9", 10, true, 3}, ParseCase{".5", 10, true, 0},
        ParseCase{" 5", 10, true, 0}, ParseCase{"-.5", 10, true, 0},
        ParseCase{"--5", 10, false, 0}, ParseCase{"--5", 16, false, 0},
        ParseCase{"5-", 10, false, 0}, ParseCase{"1\t2", 10, false, 0},
        ParseCase{"ff", 16, true, 255}, ParseCase{"FF", 16, true, 255},
        ParseCase{"0x1F", 16, true, 31}, ParseCase{"0X1f", 16, true, 31},
        ParseCase{"1x2x3", 16, true, 0x123}, ParseCase{"x", 16, true, 0},
        ParseCase{"FG", 16, false, 0}, ParseCase{"0x1F", 10, false, 0},
        ParseCase{"0x1F", 36, true, 33 * 36 * 36 + 1 * 36 + 22}, ParseCase{"0x1F", 17, false, 0},
        ParseCase{"z", 36, true, 35}, ParseCase{"Z", 36, true, 35}, ParseCase{"z", 35, false, 0},
        ParseCase{"9", 9, false, 0}, ParseCase{"777", 8, true, 511},
        ParseCase{"102", 2, false, 0}, ParseCase{"1011", 2, true, 11},
        ParseCase{"000", 1, true, 0}, ParseCase{"1", 1, false, 0}, ParseCase{"5", 0, false, 0},
        ParseCase{"5", -10, false, 0}, ParseCase{"[", 16, false, 0},
        ParseCase{"`", 16, false, 0}, ParseCase{"{", 36, false, 0},
        // Units are read as unit - '0' first: punctuation after '9' is a digit
        // above radix 10, upper-case letters count from 17 above radix 17.
        ParseCase{"1:", 16, true, 26}, ParseCase{"@", 36, true, 16}, ParseCase{"1?", 20, true, 35},
        ParseCase{":", 10, false, 0}, ParseCase{"<", 12, true, 5},
        ParseCase{"A", 17, true, 10}, ParseCase{"A", 18, true, 17}, ParseCase{"a", 18, true, 10}, ParseCase{"h", 18, true, 17}, ParseCase{"i", 18, false, 0},
        ParseCase{"2147483647", 10, true, INT32_MAX},
        ParseCase{"2147483648", 10, false, 0},
        ParseCase{"-2147483648", 10, true, INT32_MIN},
        ParseCase{"-2147483649", 10, false, 0},
        ParseCase{"00000000002147483647", 10, true, INT32_MAX},
        ParseCase{"7FFFFFFF", 16, true, INT32_MAX}, ParseCase{"80000000", 16, false, 0},
        ParseCase{"FFFFFFFF", 16, false, 0}, ParseCase{"-80000000", 16, true, INT32_MIN},
        ParseCase{"-7fffffff", 16, true, -INT32_MAX},
        ParseCase{"2147483647.99", 10, true, INT32_MAX},
        ParseCase{"2147483647 and more", 10, true, INT32_MAX}));

// The corner the library decides: a negative text one digit past the
// minimum used to wrap; it fails now, and the exact minimum still parses.
TEST(StringConvToInteger, NegativeMagnitudeAboveMinimumFails) {
  int32_t v = 1;
  for (char const* t : {"-2147483650", "-2147483659", "-21474836500", "-99999999999"}) {
    EXPECT_FALSE(SAnsiStringConv::FromString(t, v, 10)) << t;
    EXPECT_EQ(v, 0);
  }
  EXPECT_FALSE(SAnsiStringConv::FromString("-80000001", v, 16));
  EXPECT_FALSE(SAnsiStringConv::FromString("-800000000", v, 16));
  EXPECT_TRUE(SAnsiStringConv::FromString("-80000000", v, 16));
  EXPECT_EQ(v, INT32_MIN);
  EXPECT_TRUE(SAnsiStringConv::FromString("-10000000000000000000000000000000", v, 2));
  EXPECT_EQ(v, INT32_MIN);
  EXPECT_FALSE(SAnsiStringConv::FromString("-10000000000000000000000000000001", v, 2));
  short s = 1;
  EXPECT_TRUE(SAnsiStringConv::FromString("-8000", s, 16));
  EXPECT_EQ(s, INT16_MIN);
  EXPECT_FALSE(SAnsiStringConv::FromString("-8001", s, 16));
  EXPECT_FALSE(SAnsiStringConv::FromString("-32770", s, 10));
  int64_t q = 1;
  EXPECT_TRUE(SAnsiStringConv::FromString("-9223372036854775808", q, 10));
  EXPECT_EQ(q, INT64_MIN);
  EXPECT_FALSE(SAnsiStringConv::FromString("-9223372036854775810", q, 10));
}

// ---------------------------------------------------------------------------
// Round-trip property: every type, radix 2..36, random non-negative values
// and the limits; one past each limit fails.

__extension__ using Wide128 = unsigned __int128;

// Digits of v in radix, written independently of the library.
std::string Reference(Wide128 v, int radix) {
  std::string s;
  do {
    int d = static_cast<int>(v % static_cast<unsigned>(radix));
    s.insert(s.begin(), static_cast<char>(d < 10 ? '0' + d : 'A' + d - 10));
    v /= static_cast<unsigned>(radix);
  } while (v != 0);
  return s;
}

// Upper-case letters read as unit - '0' above radix 17, so text written
// there reads back once lower-cased.
std::string Readable(std::string text, int radix) {
  if (radix > 17)
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

template <class T>
bool ParseBoth(std::string const& written, T& out, int radix) {
  std::string const text = Readable(written, radix);
  T a = 1, w = 1;
  bool okA = SAnsiStringConv::FromString(text.c_str(), a, radix);
  bool okW = SWCharStringConv::FromString(Wide(text), w, radix);
  EXPECT_EQ(okA, okW) << text;
  EXPECT_EQ(a, w) << text;
  out = a;
  return okA;
}

template <class T>
void RoundTrip(T v, int radix) {
  std::string text = From(v, radix);
  std::string expected = v < 0 ? "-" + Reference(Wide128(0) - static_cast<Wide128>(v), radix)
                                : Reference(static_cast<Wide128>(v), radix);
  ASSERT_EQ(text, expected) << "radix " << radix;
  T back = 0;
  ASSERT_TRUE(ParseBoth(text, back, radix)) << text << " radix " << radix;
  ASSERT_EQ(back, v) << text << " radix " << radix;
}

template <class T>
void CheckType() {
  using U = std::make_unsigned_t<T>;
  constexpr T kMax = std::numeric_limits<T>::max();
  std::mt19937_64 rng(0x5eed + sizeof(T) * 2 + std::is_signed_v<T>);
  for (int radix = 2; radix <= 36; ++radix) {
    SCOPED_TRACE(radix);
    for (int i = 0; i < 300; ++i) {
      // Random bits cut to a random width, so that short values are as
      // common as long ones.
      U bits = static_cast<U>(rng());
      unsigned width = static_cast<unsigned>(rng() % (sizeof(T) * 8 + 1));
      if (width < sizeof(T) * 8) bits = static_cast<U>(bits & ((U(1) << width) - 1));
      T v = static_cast<T>(bits & static_cast<U>(kMax));
      RoundTrip(v, radix);
    }
    RoundTrip(T(0), radix);
    RoundTrip(kMax, radix);
    T out = 1;
    EXPECT_FALSE(ParseBoth(Reference(Wide128(kMax) + 1, radix), out, radix));
    EXPECT_EQ(out, 0);
    if constexpr (std::is_signed_v<T>) {
      // The minimum: "-" and the magnitude parses in every radix; one more
      // fails. Radix 10 writes it with "-" and reads it back.
      EXPECT_TRUE(ParseBoth("-" + Reference(Wide128(kMax) + 1, radix), out, radix));
      EXPECT_EQ(out, std::numeric_limits<T>::min());
      EXPECT_FALSE(ParseBoth("-" + Reference(Wide128(kMax) + 2, radix), out, radix));
      if (radix == 10) RoundTrip(std::numeric_limits<T>::min(), radix);
      // Elsewhere a negative value is written as its two's complement,
      // which is out of the signed range.
      if (radix != 10) {
        EXPECT_FALSE(ParseBoth(From(T(-1), radix), out, radix));
      }
    }
  }
}

TEST(StringConvProperty, RoundTripInt8) { CheckType<signed char>(); }
TEST(StringConvProperty, RoundTripUInt8) { CheckType<unsigned char>(); }
TEST(StringConvProperty, RoundTripInt16) { CheckType<short>(); }
TEST(StringConvProperty, RoundTripUInt16) { CheckType<unsigned short>(); }
TEST(StringConvProperty, RoundTripInt32) { CheckType<int32_t>(); }
TEST(StringConvProperty, RoundTripUInt32) { CheckType<uint32_t>(); }
TEST(StringConvProperty, RoundTripInt64) { CheckType<int64_t>(); }
TEST(StringConvProperty, RoundTripUInt64) { CheckType<uint64_t>(); }

}  // namespace
