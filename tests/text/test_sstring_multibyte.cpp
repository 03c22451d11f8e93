// String core in real multibyte locales: stepping, counting, searching,
// setAt, case mapping, trimming and collation in C.UTF-8 and in the
// double-byte ja_JP.EUC-JP locale.
#include <quenlib/sstring.h>

#include "text_support.h"

#include <cstring>

using namespace QuenLibA500;
using MbChar = SChar_t<char, 0>;
using WideChar = SChar_t<WChar, 1>;
using AsciiChar = SChar_t<char, 1>;

namespace {

// Switches the process locale for one test and collects assertions.
class LocaleTest : public ::testing::Test {
 protected:
  void Use(char const* name) {
    if (!std::setlocale(LC_ALL, name))
      GTEST_SKIP() << "locale " << name << " is not installed (run scripts/setup.sh)";
  }
  void TearDown() override { std::setlocale(LC_ALL, "C"); }
  std::string bytes(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }
  quentest::AssertLog log{"sstring"};
  std::vector<quentest::AssertLog::Seen>& seen = log.seen;
};

class Utf8 : public LocaleTest {
 protected:
  void SetUp() override {
    LocaleTest::SetUp();
    Use("C.UTF-8");
  }
};

class EucJp : public LocaleTest {
 protected:
  void SetUp() override {
    LocaleTest::SetUp();
    Use("ja_JP.EUC-JP");
  }
};

// EUC-JP bytes of the characters used below.
constexpr char kNichi[] = "\xC6\xFC";      // 日
constexpr char kHon[] = "\xCB\xDC";        // 本
constexpr char kFullA[] = "\xA3\xE1";      // full-width a
constexpr char kFullAUp[] = "\xA3\xC1";    // full-width A
constexpr char kHalfKana[] = "\x8E\xB1";   // half-width katakana (SS2)
constexpr char kSupp[] = "\x8F\xB0\xA1";   // JIS X 0212 character (SS3)

}  // namespace

// ---------------------------------------------------------------------------
// UTF-8

TEST_F(Utf8, SteppingOverLeadTrailInvalidAndTerminator) {
  SAnsiString s("\xC3\xA9\xFFz");
  SAnsiString::iterator it(s), start(s);
  ++it;
  EXPECT_EQ(it - start, 2);  // lead and trail byte
  EXPECT_EQ((*it).getNUnits(), 1u);
  EXPECT_EQ((*it).getChar(), '\xFF');
  EXPECT_EQ((*it).getLength(), -1);
  ++it;
  EXPECT_EQ(it - start, 3);  // invalid byte: one
  ++it;
  EXPECT_TRUE(it.isAtEnd());
  ++it;
  EXPECT_EQ(it - start, 4);  // the terminator does not move
  SAnsiString::iterator jt(s);
  jt += 10;
  EXPECT_EQ(jt - start, 4);  // += stops early at the terminator
  EXPECT_EQ(s.getNChars(), 3u);
}

// Reference search: try every character boundary, compare character by
// character with the iterators.
SAnsiString::iterator NaiveFind(SAnsiString const& hay, SAnsiString const& needle) {
  SAnsiString::iterator end(hay.getString() + hay.getLength());
  if (needle.isEmpty()) return end;
  for (SAnsiString::iterator at(hay); !at.isAtEnd(); ++at) {
    SAnsiString::iterator h(at), n(needle);
    while (!n.isAtEnd() && *h == *n) {
      ++h;
      ++n;
    }
    if (n.isAtEnd()) return at;
  }
  return end;
}

TEST_F(Utf8, SearchAndCountingAgreeWithCharacterWalks) {
  // Mixed one-byte, multibyte, invalid and truncated pieces, long enough
  // for the vectorised scanning of one-byte runs to matter.
  char const* pieces[] = {"a", "b", "ab", "\xC3\xA9", "\xE2\x82\xAC", "\xFF", "\xC3", "\xA9", "xyzxyzxyzxyzxyzxyz"};
  unsigned seed = 12345;
  auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
  for (int round = 0; round < 400; ++round) {
    std::string h, n;
    for (unsigned i = 0, k = next() % 40; i < k; ++i) h += pieces[next() % 9];
    for (unsigned i = 0, k = 1 + next() % 3; i < k; ++i) n += pieces[next() % 9];
    SAnsiString hay(h.c_str()), needle(n.c_str());
    ASSERT_EQ(hay.find(needle), NaiveFind(hay, needle)) << "round " << round;
    SAnsiString::iterator from(hay);
    from += 3;
    SAnsiString rest = hay.mid(from);
    EXPECT_EQ(from.find(needle) - from, NaiveFind(rest, needle) - SAnsiString::iterator(rest));
    // Counting and positioning skip one-byte runs in bulk; they must agree
    // with stepping one character at a time.
    unsigned walked = 0;
    for (SAnsiString::iterator it(hay); !it.isAtEnd(); ++it) ++walked;
    ASSERT_EQ(hay.getNChars(), walked) << "round " << round;
    unsigned k = walked ? next() % (walked + 2) : 0;
    SAnsiString::iterator at(hay);
    at += k;
    EXPECT_EQ(hay.left(k).getLength(), static_cast<unsigned>(at - SAnsiString::iterator(hay)));
    EXPECT_TRUE(hay.mid(k) == hay.mid(at));
  }
}

TEST_F(Utf8, CaseMappingFollowsTheLocale) {
  SAnsiString s("\xC3\xA9t\xC3\xA9");  // été
  s.toUpper();
  EXPECT_EQ(bytes(s), "\xC3\x89T\xC3\x89");
  s.toLower();
  EXPECT_EQ(bytes(s), "\xC3\xA9t\xC3\xA9");
  // Dotless i (two bytes) upper-cases to I (one byte): the length follows.
  SAnsiString dotless("\xC4\xB1x");
  dotless.toUpper();
  EXPECT_EQ(bytes(dotless), "IX");
  EXPECT_EQ(dotless.getLength(), 2u);
  EXPECT_EQ(MbChar("\xC3\xA9", 2).toUpper(), MbChar("\xC3\x89", 2));
  EXPECT_TRUE(MbChar("\xC3\xA9", 2).isLower());
  EXPECT_TRUE(MbChar("\xC3\xA9", 2).isAlpha());
  EXPECT_TRUE(seen.empty());
}

TEST_F(Utf8, CollationAndCaseInsensitiveClasses) {
  EXPECT_LT(SAnsiString("\xC3\xA9").compare(SAnsiString("\xE2\x82\xAC")), 0);
  EXPECT_EQ(SAnsiString("\xC3\x89T\xC3\x89").compareNoCase(SAnsiString("\xC3\xA9t\xC3\xA9")), 0);
  EXPECT_TRUE(SAnsiStringCI("\xC3\x89") == "\xC3\xA9");
  EXPECT_TRUE(SAnsiStringCI("\xC3\xA9") > SAnsiString("zzz"));  // collation, not length
  SAnsiStringCI hay("Caf\xC3\xA9 Cr\xC3\x88ME");
  SAnsiString::iterator it = hay.find(SAnsiString("cr\xC3\xA8me"));
  EXPECT_EQ(hay.getCharIndex(it), 5u);
  EXPECT_EQ(it - SAnsiString::iterator(hay), 6);
  // Wide collation sees code points: U+1F600 sorts after U+FFFF although
  // its first unit (a surrogate) is smaller.
  SWCharString grin(u"\U0001F600"), last(u"\uFFFF");
  EXPECT_GT(grin.compare(last), 0);
  EXPECT_LT(grin.compareBinary(last), 0);
  EXPECT_EQ(SWCharString(u"\u00c9T\u00c9").compareNoCase(SWCharString(u"\u00e9t\u00e9")), 0);
  SWCharString up(u"\u00e9t\u00e9");
  up.toUpper();
  EXPECT_TRUE(up == u"\u00c9T\u00c9");
}

// ---------------------------------------------------------------------------
// EUC-JP (double-byte code page)

TEST_F(EucJp, ThreeByteAndKanaAndTruncatedCharacters) {
  SAnsiString s((std::string(kSupp) + kHalfKana + "a\xC6").c_str());
  SAnsiString::iterator it(s), start(s);
  ++it;
  EXPECT_EQ(it - start, 3);
  ++it;
  EXPECT_EQ(it - start, 5);
  ++it;
  EXPECT_EQ(it - start, 6);
  ++it;  // a lead byte before the terminator counts as one byte
  EXPECT_EQ(it - start, 7);
  EXPECT_TRUE(it.isAtEnd());
  EXPECT_EQ(s.getNChars(), 4u);
}

TEST_F(EucJp, FindDoesNotMatchAcrossCharacters) {
  SAnsiString s((std::string(kNichi) + kHon).c_str());
  // FC CB are the trail of one character and the lead of the next.
  EXPECT_TRUE(s.find(SAnsiString("\xFC\xCB")).isAtEnd());
  EXPECT_EQ(s.getCharIndex(s.find(SAnsiString(kHon))), 1u);
  EXPECT_EQ(s.getCharIndex(s.findFirst(MbChar(kHon, 2))), 1u);
  EXPECT_TRUE(s.findFirst(MbChar('\xCB')).isAtEnd());
}
