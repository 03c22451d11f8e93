// The string fast paths against plain references: the wide search, what a
// buffer remembers about single-byte text across edits, case-insensitive
// comparison across collation locales, and blocks of every cached size.
#include <quenlib/sstring.h>

#include "text_support.h"

#include <clocale>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <functional>
#include <random>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

int Sign(int r) { return (r > 0) - (r < 0); }

// The characters of UTF-8 text, stepped with the C library.
std::vector<std::string> Chars(std::string const& s) {
  std::vector<std::string> out;
  std::mbstate_t st{};
  for (size_t i = 0; i < s.size();) {
    size_t n = std::mbrlen(s.data() + i, s.size() - i, &st);
    if (n == 0 || n > s.size() - i) n = 1;
    out.push_back(s.substr(i, n));
    i += n;
  }
  return out;
}

}  // namespace

TEST(SStringFastPaths, WideFindAgreesWithTheStandardSearch) {
  std::mt19937 rng(7);
  for (size_t hay : {0u, 1u, 7u, 8u, 15u, 16u, 17u, 23u, 24u, 31u, 40u, 100u, 257u}) {
    for (size_t need : {1u, 2u, 3u, 8u, 9u, 16u, 17u}) {
      for (int round = 0; round < 20; ++round) {
        // Two letters make first-and-last-unit candidates common.
        std::u16string h(hay, u'a'), n(need, u'a');
        for (auto& c : h) c = (rng() & 1) ? u'a' : u'b';
        for (auto& c : n) c = (rng() & 3) ? u'a' : u'b';
        if (round == 0 && hay >= need) h.replace(hay - need, need, n);  // at the very end
        SWCharString sh(h.c_str(), static_cast<unsigned>(h.size()));
        SWCharString sn(n.c_str(), static_cast<unsigned>(n.size()));
        size_t want = h.find(n);
        size_t got = static_cast<size_t>(sh.find(sn) - SWCharString::iterator(sh));
        ASSERT_EQ(got, want == std::u16string::npos ? hay : want) << "hay " << hay << " needle " << need;
      }
    }
  }
}

TEST(SStringFastPaths, SingleByteKnowledgeFollowsEveryEdit) {
  quentest::LocaleScope utf8("C.UTF-8");
  using C = SChar_t<char, 0>;
  C const eAcute("\xC3\xA9", 2);
  struct Step {
    char const* what;
    std::function<void(SAnsiString&)> edit;
  };
  std::vector<Step> const steps = {
      {"one-byte over one-byte", [](SAnsiString& s) { s.setAt(3u, C('X')); }},
      {"two-byte over one-byte", [&](SAnsiString& s) { s.setAt(2u, eAcute); }},
      {"one-byte over two-byte", [](SAnsiString& s) { s.setAt(2u, C('y')); }},
      {"append a two-byte character", [&](SAnsiString& s) { s += eAcute; }},
      {"delete it", [](SAnsiString& s) { s.deleteChar(s.getNChars() - 1); }},
      {"append one-byte text", [](SAnsiString& s) { s += "tail"; }},
      {"append two-byte text", [](SAnsiString& s) { s += "\xC3\xBC"; }},
      {"one-byte char appended", [](SAnsiString& s) { s += 'z'; }},
      // The first append takes the private copy; the next two are written
      // in place, and the lead byte must mark the text as mixed.
      {"two-byte character appended a byte at a time",
       [](SAnsiString& s) {
         s += 'a';
         s += '\xC3';
         s += '\xA9';
       }},
      {"insert two-byte text", [](SAnsiString& s) { s.insertChars(1u, SAnsiString("\xC3\xB6")); }},
      {"delete the first three", [](SAnsiString& s) { s.deleteChars(0u, 3); }},
      {"trim the end", [](SAnsiString& s) { s += "  "; s.trimRight(); }},
      {"upper case", [](SAnsiString& s) { s.toUpper(); }},
      {"delete all two-byte ones",
       [](SAnsiString& s) {
         for (unsigned i = s.getNChars(); i-- > 0;)
           if (s.getAt(i).getNUnits() > 1) s.deleteChar(i);
       }},
      {"one-byte over one-byte again", [](SAnsiString& s) { s.setAt(0u, C('Q')); }},
  };
  SAnsiString s("plain ascii text");
  for (Step const& step : steps) {
    SAnsiString before(s);  // shares the buffer, so the edit copies it
    std::string const old(before.getString());
    (void)s.getNChars();  // let the shared buffer learn its kind first
    step.edit(s);
    EXPECT_EQ(std::string(before.getString()), old) << step.what;
    std::string text(s.getString(), s.getLength());
    std::vector<std::string> ref = Chars(text);
    ASSERT_EQ(s.getNChars(), ref.size()) << step.what << ": " << text;
    std::string head;
    SAnsiString::iterator it(s);
    for (unsigned i = 0; i < ref.size(); ++i, ++it) {
      C c = s.getAt(i);
      ASSERT_EQ(std::string(c.getData().units, c.getNUnits()), ref[i]) << step.what << " at " << i;
      ASSERT_EQ(s.getCharIndex(it), i) << step.what;
      ASSERT_EQ(std::string(s.left(i).getString()), head) << step.what;
      head += ref[i];
    }
  }
}

TEST(SStringFastPaths, CaseInsensitiveOrderFollowsTheCollationLocale) {
  // Pairs whose order differs between code-point order and dictionary
  // collation (punctuation and spaces), with letters of both cases, and
  // texts longer than one vector and than the stack scratch area.
  std::string const longA(300, 'a'), longB = std::string(299, 'A') + "B";
  std::vector<std::pair<std::string, std::string>> const pairs = {
      {"a-b", "AB"},          {"A B", "ab"},      {"_x", "A"},         {"Zebra", "apple"},
      {"same TEXT", "SAME text"}, {"abc", "ABCD"}, {"", "a"},           {"0123456789abcdefGH", "0123456789ABCDEFgi"},
      {"0123456789abcdefGH\xC3\x89", "0123456789ABCDEFgh\xC3\xA9"}, {longA, longB}, {"caf\xC3\xA9", "CAF\xC3\x89S"}};
  bool differs = false;
  for (char const* locale : {"C.UTF-8", "en_US.UTF-8"}) {
    if (std::setlocale(LC_ALL, locale) == nullptr) {
      std::setlocale(LC_ALL, "C");
      if (std::string(locale) == "C.UTF-8") FAIL() << "C.UTF-8 missing";
      GTEST_SKIP() << locale << " is not installed";
    }
    for (auto const& [a, b] : pairs) {
      // The rule: locale collation of the lower-cased texts.
      std::wstring wa(a.size() + 1, L'\0'), wb(b.size() + 1, L'\0');
      wa.resize(std::mbstowcs(wa.data(), a.c_str(), wa.size()));
      wb.resize(std::mbstowcs(wb.data(), b.c_str(), wb.size()));
      for (wchar_t& w : wa) w = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(w)));
      for (wchar_t& w : wb) w = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(w)));
      int want = Sign(std::wcscoll(wa.c_str(), wb.c_str()));
      differs |= want != Sign(std::wcscmp(wa.c_str(), wb.c_str()));
      EXPECT_EQ(SAnsiString(a.c_str()).compareNoCase(SAnsiString(b.c_str())), want) << locale << ": " << a << " / " << b;
      EXPECT_EQ(SAnsiString(b.c_str()).compareNoCase(SAnsiString(a.c_str())), -want) << locale;
      // The wide texts: the same code points (all in the BMP), not lowered.
      auto widen = [](std::string const& t) {
        std::u16string u;
        for (std::string const& c : Chars(t)) {
          wchar_t w = 0;
          std::mbstate_t st{};
          std::mbrtowc(&w, c.data(), c.size(), &st);
          u.push_back(static_cast<char16_t>(w));
        }
        return u;
      };
      std::u16string ua = widen(a), ub = widen(b);
      EXPECT_EQ(SWCharStringCI(ua.c_str()).compareNoCase(SWCharString(ub.c_str())), want) << locale << ": " << a;
    }
  }
  std::setlocale(LC_ALL, "C");
  EXPECT_TRUE(differs) << "no pair tells the two collation orders apart";
}

TEST(SStringFastPaths, BlocksOfEveryCachedSizeKeepTheirText) {
  // Grows one string through every block class, keeping a copy of each
  // size; copies are then edited (private copies from the cache) and
  // released in another order.
  std::vector<SAnsiString> kept;
  SAnsiString s;
  std::string ref;
  for (int i = 0; i < 4000; ++i) {
    char c = static_cast<char>('a' + i % 26);
    s += c;
    ref += c;
    if (i % 97 == 0) kept.push_back(s);
  }
  for (size_t k = 0; k < kept.size(); ++k) {
    SAnsiString copy(kept[k]);
    unsigned at = copy.getLength() / 2;
    copy.setAt(at, SChar_t<char, 0>('#'));
    std::string want = ref.substr(0, copy.getLength());
    want[at] = '#';
    ASSERT_EQ(std::string(copy.getString()), want);
    ASSERT_EQ(std::string(kept[k].getString()), ref.substr(0, kept[k].getLength()));
  }
  while (!kept.empty()) kept.erase(kept.begin() + static_cast<long>(kept.size() / 2));
}

TEST(SStringFastPaths, PrivateCopyTakenBySetAtIsAWholeBuffer) {
  // setAt by index makes the private copy of a shared single-byte text
  // itself: the copy must carry the length, the spare room, the
  // terminator and the text kind, so that appends and counts go on working.
  for (unsigned len : {1u, 47u, 48u, 1024u, 5000u}) {
    SAnsiString src(std::string(len, 'a').c_str());
    SAnsiString copy(src);
    copy.setAt(len - 1, SChar_t<char, 0>('b'));
    ASSERT_EQ(copy.getString()[len], '\0') << len;
    for (int i = 0; i < 40; ++i) copy += 'c';
    EXPECT_EQ(copy.getLength(), len + 40) << len;
    EXPECT_EQ(copy.getNChars(), len + 40) << len;
    EXPECT_EQ(std::string(copy.getString()), std::string(len - 1, 'a') + "b" + std::string(40, 'c'));
    EXPECT_EQ(std::string(src.getString()), std::string(len, 'a')) << len;
  }
  // Copies of the empty buffer and of a moved-from string stay empty.
  SAnsiString moved("x");
  SAnsiString taken(std::move(moved));
  SAnsiString fromEmpty{SAnsiString()};
  SAnsiString fromMoved(moved);
  EXPECT_TRUE(fromEmpty.isEmpty());
  EXPECT_TRUE(fromMoved.isEmpty());
  EXPECT_EQ(std::string(taken.getString()), "x");
}
