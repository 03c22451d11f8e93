// Percent-encoding and decoding: the escape tables, the wide and multibyte
// forms, the strict and lenient decoders, and a cross-check of the form
// table and the decoder against Python's urllib.parse.
#include "web_support.h"
#include <quenlib/nvpairs.h>

#include <random>
#include <sstream>

using namespace QuenLibA500;

namespace {

using UrlEncode = quentest::Utf8Test;

// Exposes the protected members for testing.
struct Codec : CNameValuePairs {
  using CNameValuePairs::EscapeWideChar;
  using CNameValuePairs::internalURLStrDecode;
  using CNameValuePairs::needURLDecode;
  using CNameValuePairs::needURLEncode3;
};

}  // namespace

TEST_F(UrlEncode, StrictDecoder) {
  struct Case {
    std::u16string in;
    bool ok;
    std::u16string out;
  } const cases[] = {
      {u"%41%u0042+", true, u"AB "},   {u"%4", false, u""},      {u"%G1", false, u""},
      {u"%u12", false, u""},           {u"plain", true, u"plain"}, {u"%e9%U0041", false, u""},
      {u"%u20ac%7e", true, u"\u20AC~"}, {u"", true, u""},
  };
  for (auto const& c : cases) {
    SWCharString out;
    bool ok = CNameValuePairs::tryURLStrDecode(out, c.in.c_str(), static_cast<unsigned>(c.in.size()));
    EXPECT_EQ(ok, c.ok);
    if (ok && c.ok) {
      EXPECT_EQ(quentest::wstr(out), c.out);
    }
  }
  SAsciiString a;
  bool decoded = true;
  EXPECT_TRUE(CNameValuePairs::tryURLStrDecode(a, "abc", 3, &decoded));
  EXPECT_FALSE(decoded);
  EXPECT_TRUE(CNameValuePairs::tryURLStrDecode(a, "a%41+%u00FF", 11, &decoded));
  EXPECT_TRUE(decoded);
  EXPECT_EQ(quentest::str(a), "aA \xFF");
  EXPECT_FALSE(CNameValuePairs::tryURLStrDecode(a, "%u0100", 6, nullptr));
  EXPECT_FALSE(CNameValuePairs::tryURLStrDecode(a, "%4", 2, nullptr));
}

TEST_F(UrlEncode, RoundTripsOfEveryByte) {
  std::mt19937 rng(7);
  for (int round = 0; round < 500; ++round) {
    std::string in;
    int n = static_cast<int>(rng() % 40);
    for (int i = 0; i < n; ++i) in.push_back(static_cast<char>(1 + rng() % 255));
    std::string enc = quentest::str(CNameValuePairs::URLStrEncode(in.c_str()));
    EXPECT_EQ(quentest::str(CNameValuePairs::URLStrDecode(SAnsiString(enc.c_str()))), in);
    std::u16string win;
    for (int i = 0; i < n; ++i) win.push_back(static_cast<WChar>(1 + rng() % 0xFFFE));
    SWCharString wenc = CNameValuePairs::URLStrEncode(SWCharString(win.c_str()));
    SWCharString wdec;
    ASSERT_TRUE(CNameValuePairs::tryURLStrDecode(wdec, wenc.getString(), wenc.getLength()));
    EXPECT_EQ(quentest::wstr(wdec), win);
  }
}

// ---------------------------------------------------------------------------
// Cross-check against Python's urllib.parse on a generated corpus.

namespace {

char const kPythonScript[] = R"PY(
import sys
from urllib.parse import quote_from_bytes, unquote_plus
out = []
for line in open(sys.argv[1]):
    parts = line.split()
    kind, hexdata = parts[0], (parts[1] if len(parts) > 1 else '')
    data = bytes.fromhex(hexdata)
    if kind == 'E':
        res = quote_from_bytes(data, safe='._').encode('ascii')
    else:
        res = unquote_plus(data.decode('latin-1'), encoding='latin-1').encode('latin-1')
    out.append(res.hex())
open(sys.argv[2], 'w').write('\n'.join(out) + '\n')
)PY";

std::string Hex(std::string const& s) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : s) {
    out.push_back(digits[c >> 4]);
    out.push_back(digits[c & 15]);
  }
  return out;
}

std::string Unhex(std::string const& s) {
  std::string out;
  for (size_t i = 0; i + 1 < s.size(); i += 2) out.push_back(static_cast<char>(std::stoi(s.substr(i, 2), nullptr, 16)));
  return out;
}

// Python's quote keeps "-" and "~" and writes the space as %20; the form
// table escapes "-" and "~" and writes the space as "+".
std::string FormFromPython(std::string const& q) {
  std::string out;
  for (size_t i = 0; i < q.size(); ++i) {
    if (q[i] == '-') out += "%2D";
    else if (q[i] == '~') out += "%7E";
    else if (q.compare(i, 3, "%20") == 0) { out += '+'; i += 2; }
    else out += q[i];
  }
  return out;
}

}  // namespace

TEST_F(UrlEncode, AgreesWithPythonUrllib) {
  if (std::system("python3 -c 'import urllib.parse' >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "python3 not available";
  std::mt19937 rng(12345);
  std::vector<std::pair<char, std::string>> corpus;
  for (int i = 0; i < 20000; ++i) {
    std::string s;
    int n = static_cast<int>(rng() % 48);
    for (int k = 0; k < n; ++k) s.push_back(static_cast<char>(1 + rng() % 255));
    corpus.emplace_back('E', s);
  }
  // Decoder inputs: escapes (good and malformed), "+", plain and high bytes.
  // No "u" anywhere: the "%uXXXX" form is this library's own and Python
  // does not read it.
  static char const alphabet[] = "%%%%++09afAFgGzZ .-_~\x80\xC3\xA9\xFF";
  for (int i = 0; i < 20000; ++i) {
    std::string s;
    int n = static_cast<int>(rng() % 32);
    for (int k = 0; k < n; ++k) s.push_back(alphabet[rng() % (sizeof alphabet - 1)]);
    corpus.emplace_back('D', s);
  }
  quentest::TempDir dir;
  std::string script = dir / "check.py", in = dir / "in.txt", outPath = dir / "out.txt";
  quentest::WriteFile(script, kPythonScript);
  {
    std::ofstream f(in);
    for (auto const& [kind, s] : corpus) f << kind << ' ' << (s.empty() ? "" : Hex(s)) << '\n';
  }
  std::string cmd = "python3 " + script + " " + in + " " + outPath;
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  std::ifstream results(outPath);
  quentest::AssertLog quiet;
  size_t checked = 0;
  std::string line;
  for (auto const& [kind, s] : corpus) {
    ASSERT_TRUE(std::getline(results, line));
    std::string py = Unhex(line);
    if (kind == 'E') {
      EXPECT_EQ(quentest::str(CNameValuePairs::URLStrEncode(s.c_str())), FormFromPython(py)) << Hex(s);
    } else {
      EXPECT_EQ(quentest::str(CNameValuePairs::URLStrDecode(SAnsiString(s.c_str()))), py) << s;
    }
    ++checked;
  }
  EXPECT_EQ(checked, corpus.size());
}
