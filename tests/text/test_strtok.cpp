// Tokenizers: cutting at a whole delimiter text, the two RightStr
// behaviours, the delimiter that Next(d) leaves behind, and multibyte
// delimiters in UTF-8 and EUC-JP.
#include <quenlib/strtok.h>

#include <gtest/gtest.h>

#include <clocale>
#include <ostream>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

std::string Str(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

// Every piece until the tokenizer is empty.
template <class Tok>
std::vector<std::string> Drain(Tok& t) {
  std::vector<std::string> out;
  for (int guard = 0; !t.IsEmpty() && guard < 100; ++guard) out.push_back(Str(t.Next()));
  return out;
}

using Pieces = std::vector<std::string>;

struct CutCase {
  char const* text;
  char const* delimiter;
  Pieces pieces;
};

// Readable test names in ctest's listing instead of the object's bytes.
void PrintTo(CutCase const& c, std::ostream* os) {
  *os << '"' << c.text << "\" at \"" << c.delimiter << '"';
}

class Cut : public ::testing::TestWithParam<CutCase> {};

TEST_P(Cut, BothClassesYieldTheSamePieces) {
  CutCase const& c = GetParam();
  RSStrTok r(c.text);
  r.SetToken(c.delimiter);
  EXPECT_EQ(Drain(r), c.pieces);
  EXPECT_TRUE(r.IsEmpty());
  EXPECT_EQ(Str(r.Next()), "");
  SStrTok s(c.text, c.delimiter);
  EXPECT_EQ(Drain(s), c.pieces);
  EXPECT_EQ(Str(s.Next()), "");
}

INSTANTIATE_TEST_SUITE_P(
    Pieces, Cut,
    ::testing::Values(CutCase{"a,b,,c", ",", {"a", "b", "", "c"}},
                      CutCase{"a::b", "::", {"a", "b"}},
                      CutCase{"a:b::c", "::", {"a:b", "c"}},
                      CutCase{"no delimiter", ",", {"no delimiter"}},
                      CutCase{",a", ",", {"", "a"}},
                      // A trailing delimiter leaves nothing behind it.
                      CutCase{"a,", ",", {"a"}},
                      CutCase{",,", ",", {"", ""}},
                      CutCase{"abcabc", "abc", {"", ""}},
                      CutCase{"x", "xyz", {"x"}},
                      CutCase{"a b", "", {"a b"}},
                      CutCase{"", ",", {}}));

TEST(RSStrTok, NextWithDelimiterKeepsIt) {
  RSStrTok t("a;b;c,d");
  EXPECT_EQ(Str(t.Next(';')), "a");
  EXPECT_EQ(Str(t.Next()), "b");
  EXPECT_EQ(Str(t.rest()), "c,d");
  EXPECT_EQ(Str(t.Next(",")), "c");
  EXPECT_EQ(Str(t.Next()), "d");
  EXPECT_TRUE(t.IsEmpty());
}

TEST(SStrTok, RightStrReturnsTheRestAndLeavesIt) {
  SStrTok t("x=1&y=2&z=3", "&");
  EXPECT_EQ(Str(t.RightStr()), "y=2&z=3");
  EXPECT_EQ(Str(t.GetString()), "y=2&z=3");
  EXPECT_EQ(Str(t.Next()), "y=2");
  EXPECT_EQ(Str(t.LeftStr()), "z=3");
  EXPECT_TRUE(t.IsEmpty());
}

// Multibyte text: the delimiter is matched by whole characters and the
// cursor steps over it by characters.
class MultibyteTok : public ::testing::Test {
 protected:
  void Use(char const* name) {
    if (!std::setlocale(LC_ALL, name)) GTEST_SKIP() << "locale " << name << " is not installed";
  }
  void TearDown() override { std::setlocale(LC_ALL, "C"); }
};

TEST_F(MultibyteTok, EucJpTrailByteIsNotADelimiter) {
  Use("ja_JP.EUC-JP");
  // In EUC-JP "\xA4\xA2" is one character; the delimiter "\xA2\xA4" occurs
  // in the bytes "\xA4\xA2\xA4\xA2" only across a character boundary.
  RSStrTok t("\xA4\xA2\xA4\xA2" "x\xA2\xA4" "y");
  t.SetToken("\xA2\xA4");
  EXPECT_EQ(Str(t.Next()), "\xA4\xA2\xA4\xA2" "x");
  EXPECT_EQ(Str(t.Next()), "y");
  // A double-byte delimiter steps two bytes.
  SStrTok s("1\xB0\xA1" "2\xB0\xA1" "3", "\xB0\xA1");
  EXPECT_EQ(Str(s.RightStr()), "2\xB0\xA1" "3");
}

}  // namespace
