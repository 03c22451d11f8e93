// NeutralString: decimal limits of every integer type, in any locale.
#include <quenlib/neutralstr.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <limits>
#include <string>

using namespace QuenLibA500;

namespace {

__extension__ using Wide128 = unsigned __int128;

std::string Decimal(Wide128 v) {
  std::string s;
  do {
    s.insert(s.begin(), static_cast<char>('0' + static_cast<int>(v % 10)));
    v /= 10;
  } while (v != 0);
  return s;
}

// The maximum, one past it, and for signed types the minimum and one
// below it, as decimal text.
template <class T>
void CheckLimits() {
  using Lim = std::numeric_limits<T>;
  T v = 1;
  std::string max = std::to_string(static_cast<unsigned long long>(Lim::max()));
  std::string past = Decimal(Wide128(Lim::max()) + 1);
  EXPECT_TRUE(NeutralString::ToNumber(max.c_str(), v)) << max;
  EXPECT_EQ(v, Lim::max());
  EXPECT_FALSE(NeutralString::ToNumber(past.c_str(), v)) << past;
  EXPECT_EQ(v, 0);
  EXPECT_EQ(NeutralString::FromNumber(Lim::max()), max.c_str());
  if constexpr (Lim::is_signed) {
    std::string min = std::to_string(static_cast<long long>(Lim::min()));
    // One below the minimum: the magnitude of max + 2.
    std::string below = "-" + Decimal(Wide128(Lim::max()) + 2);
    EXPECT_TRUE(NeutralString::ToNumber(min.c_str(), v)) << min;
    EXPECT_EQ(v, Lim::min());
    EXPECT_FALSE(NeutralString::ToNumber(below.c_str(), v)) << below;
    EXPECT_EQ(NeutralString::FromNumber(Lim::min()), min.c_str());
  } else {
    EXPECT_FALSE(NeutralString::ToNumber("-5", v));
    EXPECT_FALSE(NeutralString::ToNumber("-0", v));
    EXPECT_EQ(v, 0);
  }
}

TEST(NeutralString, LimitsOfEveryType) {
  CheckLimits<signed char>();
  CheckLimits<short>();
  CheckLimits<int>();
  CheckLimits<long>();
  CheckLimits<long long>();
  CheckLimits<unsigned char>();
  CheckLimits<unsigned short>();
  CheckLimits<unsigned int>();
  CheckLimits<unsigned long>();
  CheckLimits<unsigned long long>();
}

TEST(NeutralString, DecimalOnlyWhateverTheLocale) {
  if (!std::setlocale(LC_ALL, "C.UTF-8")) GTEST_SKIP() << "C.UTF-8 is not installed";
  int32_t v = 5;
  EXPECT_FALSE(NeutralString::ToNumber("ff", v));
  EXPECT_FALSE(NeutralString::ToNumber("1,000", v));
  EXPECT_TRUE(NeutralString::ToNumber("1.000", v));  // a point ends the number
  EXPECT_EQ(v, 1);
  EXPECT_TRUE(NeutralString::ToNumber("", v));
  EXPECT_EQ(v, 0);
  EXPECT_EQ(NeutralString::FromNumber(1234567), "1234567");
  std::setlocale(LC_ALL, "C");
}

}  // namespace
