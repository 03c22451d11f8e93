// LIKE-style patterns: grammar, case rules, malformed patterns, the cost
// bound, and the helpers for plain text.
#include "web_support.h"
#include <quenlib/qrysstring.h>

#include <chrono>
#include <random>

using namespace QuenLibA500;

namespace {

// A plain backtracking matcher over bytes (ASCII only), as the reference
// for the randomized comparison.
bool RefMatch(std::string const& pat, size_t pi, std::string const& text, size_t ti) {
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  if (pi == pat.size()) return ti == text.size();
  char c = pat[pi];
  if (c == '%') {
    for (size_t k = ti; k <= text.size(); ++k)
      if (RefMatch(pat, pi + 1, text, k)) return true;
    return false;
  }
  if (ti == text.size()) return false;
  if (c == '_') return RefMatch(pat, pi + 1, text, ti + 1);
  if (c == '[') {
    size_t close = pat.find(']', pi + 2);
    std::string inner = pat.substr(pi + 1, close - pi - 1);
    bool neg = inner.size() >= 2 && inner[0] == '^';
    if (neg) inner.erase(0, 1);
    bool in = false;
    char t = lower(text[ti]);
    for (size_t i = 0; i < inner.size();) {
      if (i + 2 < inner.size() && inner[i + 1] == '-') {
        if (t >= lower(inner[i]) && t <= lower(inner[i + 2])) in = true;
        i += 3;
      } else {
        if (t == lower(inner[i])) in = true;
        ++i;
      }
    }
    return in != neg && RefMatch(pat, close + 1, text, ti + 1);
  }
  return lower(c) == lower(text[ti]) && RefMatch(pat, pi + 1, text, ti + 1);
}

}  // namespace

TEST(QueryString, MalformedPatterns) {
  {
    quentest::AssertLog log;
    SQueryString q("ab[cd");
    EXPECT_FALSE(q.parse());
    EXPECT_FALSE(q.like("abc"));
    ASSERT_FALSE(log.seen.empty());
    EXPECT_EQ(log.seen[0].condition, "closeIter");
  }
  {
    // "]" right after "[" is a member, so this bracket is never closed.
    quentest::AssertLog log;
    SQueryString q("a[]b");
    EXPECT_FALSE(q.parse());
    ASSERT_FALSE(log.seen.empty());
    EXPECT_EQ(log.seen[0].condition, "closeIter");
  }
  {
    // The empty set cannot be written in a pattern; the set parser still
    // refuses it.
    quentest::AssertLog log;
    struct Probe : SQueryString {
      static bool Parse(char const* inner) {
        QueryPattern p;
        return parse_partial_pattern(inner, p);
      }
    };
    EXPECT_FALSE(Probe::Parse(""));
    ASSERT_EQ(log.seen.size(), 1u);
    EXPECT_EQ(log.seen[0].condition, "checkInRange || checkOneOf");
    EXPECT_TRUE(Probe::Parse("^"));
  }
}

TEST(QueryString, AgreesWithBacktrackingReference) {
  std::mt19937 rng(99);
  static char const patChars[] = "ab%_%[";
  for (int round = 0; round < 3000; ++round) {
    std::string pat, text;
    int pn = static_cast<int>(rng() % 8);
    for (int i = 0; i < pn; ++i) {
      char c = patChars[rng() % (sizeof patChars - 1)];
      if (c == '[') {
        pat += rng() % 2 ? "[^a-b]" : "[bc]";
      } else {
        pat += c;
      }
    }
    int tn = static_cast<int>(rng() % 8);
    for (int i = 0; i < tn; ++i) text += "abcAB"[rng() % 5];
    EXPECT_EQ(SQueryString(pat.c_str()).like(text.c_str()), RefMatch(pat, 0, text, 0))
        << pat << " ~ " << text;
  }
}

// Many "%" against a long text that almost matches: backtracking would
// take exponential time; the sweep answers in pattern x text steps. The
// bound is checked by counting, not timing: the answer must come at all.
TEST(QueryString, ManyPercentsOnLongText) {
  std::string pattern;
  for (int i = 0; i < 20; ++i) pattern += "%a";
  pattern += "%b";
  std::string text(100 * 1024, 'a');
  SQueryString q(pattern.c_str());
  EXPECT_FALSE(q.like(text.c_str()));
  text.back() = 'b';
  EXPECT_TRUE(q.like(text.c_str()));
  // Ending in "%", so that the whole pattern goes through the sweep.
  SQueryString open((pattern + "%").c_str());
  text.back() = 'a';
  EXPECT_FALSE(open.like(text.c_str()));
  text[text.size() / 2] = 'b';
  EXPECT_TRUE(open.like(text.c_str()));
}

TEST(QueryStringHelpers, WildcardsAndQuoting) {
  EXPECT_FALSE(SQueryString::ContainsWildcards("plainword"));
  EXPECT_TRUE(SQueryString::ContainsWildcards("a_b"));
  EXPECT_TRUE(SQueryString::ContainsWildcards("x]"));
  EXPECT_EQ(quentest::str(SQueryString::WrapWildCardCharsFromString("*_x")), "%[_]x");
  EXPECT_EQ(quentest::str(SQueryString::WrapWildCardCharsFromString("50%[a]")), "50[%][[]a[]]");
  EXPECT_EQ(quentest::str(SQueryString::WrapWildCardCharsFromString(nullptr)), "");
  // A wrapped user text matches itself literally.
  SAnsiString wrapped = SQueryString::WrapWildCardCharsFromString("a_%[]b");
  EXPECT_TRUE(SQueryString(wrapped).like("a_%[]b"));
  EXPECT_FALSE(SQueryString(wrapped).like("axy[]b"));
  SAnsiString v("O'Neil");
  EXPECT_TRUE(SInfoQueryString::ValidateAStringValue(v));
  EXPECT_EQ(quentest::str(v), "'O''Neil'");
  SAnsiString empty;
  EXPECT_TRUE(SInfoQueryString::ValidateAStringValue(empty));
  EXPECT_EQ(quentest::str(empty), "''");
}

// Segments between "%" placed leftmost must still find a later placement
// when an earlier one leads nowhere, on ASCII text, on non-ASCII text and
// on text longer than the stack buffer of lowered characters.
class QueryStringUtf8 : public quentest::Utf8Test {};

TEST_F(QueryStringUtf8, SegmentsBetweenPercents) {
  struct Row {
    char const* pattern;
    std::string text;
    bool match;
  };
  std::string const longText = std::string(300, 'x') + "\xC3\x89t\xC3\xA9-Ab_c" + "zz";
  Row const rows[] = {
      {"%ab%abc%", "ab-abd-abc", true},
      {"%ab%abc%", "abc", false},
      {"%a_c%x", "a-b abc x", true},
      {"%a_c%x", "abc-axc", false},
      {"%[bc]d%", "bx cd", true},
      {"%AB%", "xxaB", true},
      {"%summary%", "REPORT_SUMMARY", true},
      {"%summary%", "summar", false},
      {"%\xC3\xA9t\xC3\xA9%", "L'\xC3\x89T\xC3\x89 2024", true},
      {"%\xC3\xA9t\xC3\xA9%", "L'\xC3\x89T 2024", false},
      {"%\xC3\xA9t\xC3\xA9-ab_c%", longText, true},
      {"%\xC3\xA9t\xC3\xA9-abcc%", longText, false},
      {"%x%xx%zz", longText, true},
  };
  for (Row const& r : rows)
    EXPECT_EQ(SQueryString(r.pattern).like(r.text.c_str()), r.match) << r.pattern << " / " << r.text;
}

// The matcher decodes UTF-8 and keeps lowered forms per thread and locale:
// a change of locale between matches must be seen by the next match (in
// the C locale the bytes from 0x80 up are no characters, so nothing folds
// and "_" takes one byte).
TEST(QueryString, LocaleChangesBetweenMatches) {
  struct Row {
    char const* locale;
    char const* pattern;
    char const* text;
    bool match;
  };
  Row const rows[] = {
      {"C.UTF-8", "%\xC3\xA9l\xC3\xA8ve%", "DES \xC3\x89L\xC3\x88VES", true},
      {"C", "%\xC3\xA9l\xC3\xA8ve%", "DES \xC3\x89L\xC3\x88VES", false},
      {"C", "_l_ve", "\xC3\xA9l\xC3\xA8ve", false},
      {"C", "__l__ve", "\xC3\xA9l\xC3\xA8ve", true},
      {"C.UTF-8", "_l_ve", "\xC3\x89L\xC3\x88VE", true},
      {"C.UTF-8", "%\xCE\xB1\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1", "\xCE\x91\xCE\x98\xCE\x89\xCE\x9D\xCE\x91", true},
      // ASCII runs ending within the last 16 bytes, around a character and
      // an invalid byte (each one character for "_").
      {"C.UTF-8", "%q\xC3\xA9_z", "ABCDEFGHIJKLMNOPQ\xC3\x89\xFFZ", true},
      {"C.UTF-8", "%q__z", "ABCDEFGHIJKLMNOPQ\xC3\x89\xFFZ", true},
      {"C.UTF-8", "%q___z", "ABCDEFGHIJKLMNOPQ\xC3\x89\xFFZ", false},
      {"C.UTF-8", "a%m%op_\xC3\xA9", "abcdefghijklmnopq\xC3\x89", true},
      // Literals and "%" only on UTF-8 text (matched in place): a sign
      // from U+0800 up that lowers to an ASCII letter (KELVIN SIGN to k),
      // invalid bytes as characters of their own, a continuation byte that
      // is no character start, a partial match before the real one, and
      // the order of the literals.
      {"C.UTF-8", "%k%", "\xE2\x84\xAA \xC3\xA9", true},
      {"C.UTF-8", "\xC3\xA9t\xC3\xA9%", "\xC3\x89T\xC3\x89 \xFF", true},
      {"C.UTF-8", "%\xA9%", "\xC3\xA9", false},
      {"C.UTF-8", "%\xA9%", "\xFF\xA9", true},
      {"C.UTF-8", "%\xC3\xA9l\xC3\xA8ve%", "\xC3\xA9l\xC3\xA8 \xC3\x89L\xC3\x88VE", true},
      {"C.UTF-8", "%\xC3\xA9t\xC3\xA9%", "\xC3\xA9t \xC3\xA9", false},
      {"C.UTF-8", "%b\xC3\xA9%a%", "a b\xC3\xA9", false},
      {"C.UTF-8", "%a%b\xC3\xA9%", "a b\xC3\xA9", true},
  };
  for (Row const& r : rows) {
    quentest::LocaleScope scope(r.locale);
    SQueryString q(r.pattern);  // parsed in the row's locale, like the text
    EXPECT_EQ(q.like(SAnsiString(r.text)), r.match) << r.locale << ": " << r.pattern << " / " << r.text;
  }
}
