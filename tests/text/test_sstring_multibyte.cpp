// String core in real multibyte locales: stepping, counting, searching,
// setAt, case mapping, trimming and collation in C.UTF-8 and in the
// double-byte ja_JP.EUC-JP locale.
#include <quenlib/sstring.h>
#include <quenlib/slogger.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>
#include <vector>

using namespace QuenLibA500;
using MbChar = SChar_t<char, 0>;
using WideChar = SChar_t<WChar, 1>;
using AsciiChar = SChar_t<char, 1>;

namespace {

struct Seen {
  std::string condition, message;
};

void Record(void* ctx, char const* file, int, char const* cond, char const* msg) {
  if (std::string(file) == "sstring")
    static_cast<std::vector<Seen>*>(ctx)->push_back({cond ? cond : "", msg ? msg : ""});
}

// Switches the process locale for one test and collects assertions.
class LocaleTest : public ::testing::Test {
 protected:
  void Use(char const* name) {
    if (!std::setlocale(LC_ALL, name))
      GTEST_SKIP() << "locale " << name << " is not installed (run scripts/setup.sh)";
  }
  void SetUp() override { SetAssertObserver(&Record, &seen); }
  void TearDown() override {
    SetAssertObserver(nullptr, nullptr);
    std::setlocale(LC_ALL, "C");
  }
  std::string bytes(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }
  std::vector<Seen> seen;
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

TEST_F(Utf8, CountsCharactersNotBytes) {
  SAnsiString s("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");  // a é € 😀
  EXPECT_EQ(s.getNChars(), 4u);
  EXPECT_EQ(s.getTotalBytes(), 10u);
  EXPECT_EQ(s.getAt(1u), MbChar(SAnsiString("\xC3\xA9").getString(), 2));
  EXPECT_EQ(s.getAt(3u).getLength(), 4);
  EXPECT_EQ(s.getAt(4u).getChar(), 0);
  EXPECT_TRUE(s.left(2) == "a\xC3\xA9");
  EXPECT_TRUE(s.right(1) == "\xF0\x9F\x98\x80");
  EXPECT_TRUE(s.mid(1, 2) == "\xC3\xA9\xE2\x82\xAC");
}

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

TEST_F(Utf8, TruncatedSequenceStepsAsSingleBytes) {
  SAnsiString s("\xE2\x82");  // first two bytes of a three-byte character
  EXPECT_EQ(s.getNChars(), 2u);
}

TEST_F(Utf8, CharIndexOffABoundaryAsserts) {
  SAnsiString s("\xC3\xA9\xC3\xA9");
  SAnsiString::iterator mid(s.getString() + 1);
  EXPECT_EQ(s.getCharIndex(mid), 2u);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].condition, "iter2 == iter");
}

TEST_F(Utf8, FindMatchesOnlyAtCharacterBoundaries) {
  SAnsiString s("x\xC3\xA9y\xA9");
  // The trail byte of é is no match; the stray byte at the end is.
  SAnsiString::iterator it = s.find(SAnsiString("\xA9"));
  EXPECT_EQ(it - SAnsiString::iterator(s), 4);
  EXPECT_EQ(s.getCharIndex(it), 3u);
  EXPECT_TRUE(s.find(SAnsiString("\xA9y")).isAtEnd());
  EXPECT_EQ(s.getCharIndex(s.find(SAnsiString("\xC3\xA9y"))), 1u);
  EXPECT_EQ(s.getCharIndex(s.findFirst(MbChar("\xC3\xA9", 2))), 1u);
  SAnsiString twice("\xC3\xA9-\xC3\xA9-");
  EXPECT_EQ(twice.getCharIndex(twice.findLast(MbChar("\xC3\xA9", 2))), 2u);
  EXPECT_TRUE(twice.findLast(MbChar("\xE2\x82\xAC", 3)).isAtEnd());
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

TEST_F(Utf8, SetAtChangesByteLengthAndKeepsTheTail) {
  SAnsiString s("abc");
  SAnsiString copy(s);
  s.setAt(0u, MbChar("\xC3\xA9", 2));
  EXPECT_EQ(bytes(s), "\xC3\xA9" "bc");
  EXPECT_EQ(s.getLength(), 4u);
  EXPECT_TRUE(copy == "abc");
  SAnsiString::iterator it(s);
  s.setAt(it, MbChar("\xF0\x9F\x98\x80", 4));
  EXPECT_EQ(bytes(s), "\xF0\x9F\x98\x80" "bc");
  EXPECT_EQ(it, SAnsiString::iterator(s));
  s.setAt(2u, MbChar('C'));
  s.setAt(0u, MbChar('A'));
  EXPECT_EQ(bytes(s), "AbC");
  EXPECT_TRUE(seen.empty());
}

TEST_F(Utf8, SetAtRefusesInvalidCharacters) {
  SAnsiString s("a\xFF");
  s.setAt(0u, MbChar('\xFE'));  // c is not a character here
  s.setAt(1u, MbChar('b'));     // the target is not a character either
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].message,
            "SString::setAt: Cannot set because c is not a valid character in this locale");
  EXPECT_EQ(seen[1].message, seen[0].message);
  EXPECT_EQ(bytes(s), "a\xFF");
}

TEST_F(Utf8, InsertAndDeleteWholeCharacters) {
  SAnsiString s("\xC3\xA9\xE2\x82\xAC");
  s.insertChar(1u, MbChar('-'));
  EXPECT_EQ(bytes(s), "\xC3\xA9-\xE2\x82\xAC");
  s.deleteChar(0u);
  EXPECT_EQ(bytes(s), "-\xE2\x82\xAC");
  s.insertChars(2u, SAnsiString("\xC3\xA9"));
  EXPECT_EQ(bytes(s), "-\xE2\x82\xAC\xC3\xA9");
  s.deleteChars(1u, 2);
  EXPECT_EQ(bytes(s), "-");
  EXPECT_TRUE(seen.empty());
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

TEST_F(Utf8, CaseMappingOfInvalidBytesReportsAndKeepsThem) {
  char text[] = "a\xFF" "b";
  MakeUpperCase(text, static_cast<unsigned>(-1));
  EXPECT_STREQ(text, "A\xFF" "B");
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].message, "MakeUpperCaseChar: Fail to convert to wchar_t");
  EXPECT_EQ(seen[1].condition, "MakeUpperCaseChar(dest, strSize - (dest - s), &charSize)");
  seen.clear();
  SAnsiString s("X\xFF");
  s.toLower();
  EXPECT_EQ(bytes(s), "x\xFF");
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].message, "MakeLowerCaseChar: Fail to convert to wchar_t");
  EXPECT_EQ(seen[1].condition, "MakeLowerCaseChar(dest, strSize - (dest - s), &charSize)");
  EXPECT_EQ(MbChar('\xFF').toUpper(), MbChar());  // unmappable: zero character
  seen.clear();
  // A lead byte cut short is mapped from its own byte only.
  SAnsiString cut("\xC3" "x\xC3");
  cut.toUpper();
  EXPECT_EQ(bytes(cut), "\xC3" "X\xC3");
  EXPECT_EQ(seen.size(), 4u);
}

TEST_F(Utf8, CaseMappingFunctions) {
  char text[] = "abc\xC3\xA9" "def";
  MakeUpperCase(text, 5);  // five bytes: a, b, c and é
  EXPECT_STREQ(text, "ABC\xC3\x89");
  char one[] = "\xC3\xA9";
  unsigned size = 0;
  EXPECT_TRUE(MakeUpperCaseChar(one, 2, &size));
  EXPECT_EQ(size, 2u);
  EXPECT_STREQ(one, "\xC3\x89");
  EXPECT_TRUE(MakeLowerCaseChar(one, 2, &size));
  EXPECT_STREQ(one, "\xC3\xA9");
  char empty[] = "";
  MakeUpperCase(empty, static_cast<unsigned>(-1));
  EXPECT_STREQ(empty, "");
  WChar wide[] = u"\u00e9Ab";
  MakeLowerCase(wide, static_cast<unsigned>(-1));
  EXPECT_EQ(std::u16string(wide), u"\u00e9ab");
  EXPECT_TRUE(seen.empty());
}

TEST_F(Utf8, TrimUsesWideWhiteSpaceAndStopsAtInvalidBytes) {
  SAnsiString s("\xE3\x80\x80 text\t\xE3\x80\x80");  // ideographic spaces
  s.trim();
  EXPECT_EQ(bytes(s), "text");
  SAnsiString bad(" \xFF ");
  bad.trimLeft();
  EXPECT_EQ(bytes(bad), "\xFF ");
  bad.trimRight();
  EXPECT_EQ(bytes(bad), "\xFF");
}

TEST_F(Utf8, CharacterConversions) {
  MbChar grin("\xF0\x9F\x98\x80", 4);
  WChar w[2] = {};
  EXPECT_EQ(grin.toWideChar(w), 2u);
  EXPECT_EQ(w[0], 0xD83D);
  EXPECT_EQ(w[1], 0xDE00);
  EXPECT_EQ(grin.toBrimChar(w), 1u);
  EXPECT_EQ(w[0], u'?');
  char out[6];
  EXPECT_EQ(grin.toMBCSChar(out, 6), 4u);
  EXPECT_EQ(grin.toMBCSChar(out, 3), 0u);
  EXPECT_EQ(grin.toAsciiChar(out), 0u);
  EXPECT_EQ(WideChar(0x00E9).toMBCSChar(out, 6), 2u);
  EXPECT_EQ(std::string(out, 2), "\xC3\xA9");
  EXPECT_EQ(WideChar(0xD800).toMBCSChar(out, 6), 1u);  // lone surrogate
  EXPECT_EQ(out[0], '?');
  EXPECT_TRUE(WideChar(0x00C9).isUpper());
  EXPECT_EQ(WideChar(0x00C9).toLower(), WideChar(0x00E9));
  EXPECT_FALSE(AsciiChar('\xC9').isUpper());  // 7-bit classes only
}

TEST_F(Utf8, AsciiFromMultibyteCopiesCharacterCountOfBytes) {
  SAnsiString ansi("a\xC3\xA9" "b");  // three characters, four bytes
  SAsciiString ascii(ansi, true);
  EXPECT_EQ(ascii.getLength(), 3u);
  EXPECT_EQ(std::string(ascii.getString()), "a\xC3\xA9");
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

TEST_F(EucJp, DoubleByteCharactersStepAsOne) {
  SAnsiString s((std::string(kNichi) + kHon).c_str());
  SAnsiString::iterator start(s), end(s.getString() + s.getLength()), second(s);
  ++second;
  EXPECT_EQ(second - start, 2);
  EXPECT_EQ(end - start, 4);
  EXPECT_EQ(s.getCharIndex(second), 1u);
  EXPECT_EQ(s.getCharIndex(end), 2u);
  EXPECT_EQ(s.getNChars(), 2u);
  EXPECT_EQ(s.getAt(1u), MbChar(kHon, 2));
}

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

TEST_F(EucJp, SetAtAndCaseMapping) {
  SAnsiString s("abc");
  s.setAt(1u, MbChar(kNichi, 2));
  EXPECT_EQ(bytes(s), std::string("a") + kNichi + "c");
  EXPECT_EQ(s.getLength(), 4u);
  SAnsiString t((std::string("ab") + kFullA + kNichi).c_str());
  t.toUpper();
  EXPECT_EQ(bytes(t), std::string("AB") + kFullAUp + kNichi);
  EXPECT_TRUE(SAnsiStringCI(kFullA) == kFullAUp);
  EXPECT_TRUE(seen.empty());
}

TEST_F(EucJp, TrimIdeographicSpace) {
  SAnsiString s((std::string("\xA1\xA1 ") + kNichi + "\xA1\xA1").c_str());
  s.trim();
  EXPECT_EQ(bytes(s), kNichi);
}
