// HTML and script encoders: fixed cases, and a generated corpus checked by
// decoders of the two script-literal forms (nothing unsafe gets through,
// and the literal means the original text).
#include "web_support.h"
#include <quenlib/webencode.h>

#include <cctype>
#include <cstring>
#include <optional>
#include <random>

using namespace QuenLibA500;

namespace {

using WebEncode = quentest::Utf8Test;

bool Forbidden(unsigned char c) {
  return c < 0x20 || c == 0x7F || c == '"' || c == '\\' || c == '<' || c == '>';
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Reads a JavaScript string body: the text it means, or nothing when a raw
// character is unsafe or an escape is unknown.
std::optional<std::string> ReadJs(std::string const& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (s.compare(i, 3, "\xE2\x80\xA8") == 0 || s.compare(i, 3, "\xE2\x80\xA9") == 0) return std::nullopt;
    if (c == '\'' || (Forbidden(c) && c != '\\')) return std::nullopt;
    if (c != '\\') {
      out.push_back(static_cast<char>(c));
      continue;
    }
    if (++i >= s.size()) return std::nullopt;
    char e = s[i];
    if (e == '\\') out += '\\';
    else if (e == 'n') out += '\n';
    else if (e == 'r') out += '\r';
    else if (e == 't') out += '\t';
    else if (e == 'x' && i + 2 < s.size() && HexDigit(s[i + 1]) >= 0 && HexDigit(s[i + 2]) >= 0) {
      out.push_back(static_cast<char>(HexDigit(s[i + 1]) * 16 + HexDigit(s[i + 2])));
      i += 2;
    } else if (s.compare(i, 5, "u2028") == 0) {
      out += "\xE2\x80\xA8";
      i += 4;
    } else if (s.compare(i, 5, "u2029") == 0) {
      out += "\xE2\x80\xA9";
      i += 4;
    } else {
      return std::nullopt;
    }
  }
  return out;
}

// Reads a VBScript string body: "" is a quote, '" & Chr(N) & "' a
// character; any other quote, or an unsafe raw character, is refused.
std::optional<std::string> ReadVb(std::string const& s) {
  std::string out;
  static char const kOpen[] = "\" & Chr(";
  static char const kClose[] = ") & \"";
  for (size_t i = 0; i < s.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '"') {
      if (s.compare(i, 2, "\"\"") == 0) {
        out += '"';
        ++i;
        continue;
      }
      if (s.compare(i, std::strlen(kOpen), kOpen) != 0) return std::nullopt;
      size_t j = i + std::strlen(kOpen);
      int n = 0;
      size_t digits = 0;
      while (j < s.size() && std::isdigit(static_cast<unsigned char>(s[j]))) {
        n = n * 10 + (s[j] - '0');
        ++j;
        ++digits;
      }
      if (digits == 0 || n > 255 || s.compare(j, std::strlen(kClose), kClose) != 0) return std::nullopt;
      out.push_back(static_cast<char>(n));
      i = j + std::strlen(kClose) - 1;
      continue;
    }
    if (Forbidden(c)) return std::nullopt;
    out.push_back(static_cast<char>(c));
  }
  return out;
}

}  // namespace

TEST_F(WebEncode, HtmlForms) {
  EXPECT_EQ(quentest::str(SWebEncode::HTMLEncode("a<b&c")), "a&lt;b&amp;c");
  EXPECT_EQ(quentest::str(SWebEncode::HTMLEncode("\"x\" 'y' >")), "&quot;x&quot; 'y' &gt;");
  EXPECT_EQ(quentest::str(SWebEncode::HTMLEncode("caf\xC3\xA9")), "caf\xC3\xA9");
  EXPECT_EQ(quentest::str(SWebEncode::HTMLNonBreakableSpace("a b")), "a&nbsp;b");
  struct Case {
    char const* in;
    char const* out;
  } const stippled[] = {
      {"a    b", "a &nbsp; &nbsp;b"},
      {"  x", "&nbsp; x"},
      {" ", "&nbsp;"},
      {"a b", "a b"},
      {"a  b", "a &nbsp;b"},
      {"a   b", "a &nbsp; b"},
  };
  for (auto const& c : stippled) EXPECT_EQ(quentest::str(SWebEncode::HTMLNonBreakableSpaceStippled(c.in)), c.out) << c.in;
  for (auto fn : {&SWebEncode::HTMLEncode, &SWebEncode::HTMLNonBreakableSpace,
                  &SWebEncode::HTMLNonBreakableSpaceStippled, &SWebEncode::URLEncodeSimple,
                  &SWebEncode::JavaScriptEncode, &SWebEncode::VBScriptStringEncode})
    EXPECT_EQ(quentest::str(fn(SAnsiString())), "");
}

TEST_F(WebEncode, ScriptLiteralsAreSafeOnGeneratedCorpus) {
  std::mt19937 rng(2024);
  static char const* const pieces[] = {"\"", "'", "\\", "\n", "\r", "\t", "<", ">", "&", "/",
                                       "</script", "</SCRIPT>", "<!--", "\xE2\x80\xA8",
                                       "\xE2\x80\xA9", "\xC3\xA9", "\x7F", "\x1B", "x", " ",
                                       "\" & Chr(", "\"\""};
  for (int round = 0; round < 5000; ++round) {
    std::string in;
    for (int k = static_cast<int>(rng() % 24); k > 0; --k) {
      if (rng() % 3 == 0)
        in.push_back(static_cast<char>(1 + rng() % 0x7F));
      else
        in += pieces[rng() % (sizeof pieces / sizeof pieces[0])];
    }
    std::string js = quentest::str(SWebEncode::JavaScriptEncode(in.c_str()));
    std::string vb = quentest::str(SWebEncode::VBScriptStringEncode(in.c_str()));
    auto jsBack = ReadJs(js);
    auto vbBack = ReadVb(vb);
    ASSERT_TRUE(jsBack.has_value()) << js;
    ASSERT_TRUE(vbBack.has_value()) << vb;
    EXPECT_EQ(*jsBack, in);
    EXPECT_EQ(*vbBack, in);
    std::string lowerJs = js, lowerVb = vb;
    for (char& c : lowerJs) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (char& c : lowerVb) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(lowerJs.find("</script"), std::string::npos);
    EXPECT_EQ(lowerVb.find("</script"), std::string::npos);
  }
}
