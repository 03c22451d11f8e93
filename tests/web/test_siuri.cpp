// Generic URIs: RFC 3986 parsing, resolution and normalisation, checked
// against the RFC's examples and against Python's urllib.parse.
#include "web_support.h"
#include <quenlib/siuri.h>

#include <sstream>

using namespace QuenLibA500;
using quentest::str;

namespace {

std::string Resolved(char const* base, char const* ref) {
  SAnsiString out;
  if (!SIUri::Resolve(base, ref, out)) return "<failed>";
  return str(out);
}

std::vector<std::string> SplitTabs(std::string const& line) {
  std::vector<std::string> fields(1);
  for (char c : line) {
    if (c == '\t') fields.emplace_back();
    else fields.back().push_back(c);
  }
  return fields;
}

}  // namespace

// Every example of RFC 3986 section 5.4, normal and abnormal.
TEST(SIUri, ResolvesTheRfcExamples) {
  static char const* const kCases[][2] = {
      {"g:h", "g:h"}, {"g", "http://a/b/c/g"}, {"./g", "http://a/b/c/g"}, {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"}, {"//g", "http://g"}, {"?y", "http://a/b/c/d;p?y"}, {"g?y", "http://a/b/c/g?y"},
      {"#s", "http://a/b/c/d;p?q#s"}, {"g#s", "http://a/b/c/g#s"}, {"g?y#s", "http://a/b/c/g?y#s"},
      {";x", "http://a/b/c/;x"}, {"g;x", "http://a/b/c/g;x"}, {"g;x?y#s", "http://a/b/c/g;x?y#s"},
      {"", "http://a/b/c/d;p?q"}, {".", "http://a/b/c/"}, {"./", "http://a/b/c/"}, {"..", "http://a/b/"},
      {"../", "http://a/b/"}, {"../g", "http://a/b/g"}, {"../..", "http://a/"}, {"../../", "http://a/"},
      {"../../g", "http://a/g"},
      // abnormal
      {"../../../g", "http://a/g"}, {"../../../../g", "http://a/g"}, {"/./g", "http://a/g"},
      {"/../g", "http://a/g"}, {"g.", "http://a/b/c/g."}, {".g", "http://a/b/c/.g"}, {"g..", "http://a/b/c/g.."},
      {"..g", "http://a/b/c/..g"}, {"./../g", "http://a/b/g"}, {"./g/.", "http://a/b/c/g/"},
      {"g/./h", "http://a/b/c/g/h"}, {"g/../h", "http://a/b/c/h"}, {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
      {"g;x=1/../y", "http://a/b/c/y"}, {"g?y/./x", "http://a/b/c/g?y/./x"}, {"g?y/../x", "http://a/b/c/g?y/../x"},
      {"g#s/./x", "http://a/b/c/g#s/./x"}, {"g#s/../x", "http://a/b/c/g#s/../x"}, {"http:g", "http:g"},
  };
  for (auto const& c : kCases) EXPECT_EQ(Resolved("http://a/b/c/d;p?q", c[0]), c[1]) << "reference " << c[0];
}

TEST(SIUri, ResolutionNeedsAnAbsoluteBase) {
  EXPECT_EQ(Resolved("/relative/base", "g"), "<failed>");
  EXPECT_EQ(Resolved("http://a/b", "a b"), "<failed>");
}

TEST(SIUri, SplitsIntoParts) {
  SIUri u;
  ASSERT_TRUE(u.Parse("https://us%40er:pw@[2001:db8::1]:8443/a/b?x=1&y#frag"));
  EXPECT_EQ(str(u.GetScheme()), "https");
  EXPECT_EQ(str(u.GetUserInfo()), "us%40er:pw");
  EXPECT_EQ(str(u.GetHost()), "2001:db8::1");
  EXPECT_TRUE(u.IsIPv6());
  EXPECT_EQ(u.GetPortNumber(), 8443);
  EXPECT_EQ(str(u.GetPath()), "/a/b");
  EXPECT_EQ(str(u.GetQuery()), "x=1&y");
  EXPECT_EQ(str(u.GetFragment()), "frag");
  EXPECT_FALSE(u.IsAbsolute());

  ASSERT_TRUE(u.Parse("mailto:someone@example.com"));
  EXPECT_FALSE(u.HasAuthority());
  EXPECT_EQ(str(u.GetPath()), "someone@example.com");

  ASSERT_TRUE(u.Parse("http://h?"));  // an empty query is still a query
  EXPECT_TRUE(u.HasQuery());
  EXPECT_FALSE(u.HasFragment());
  EXPECT_EQ(u.GetPortNumber(), -1);
  EXPECT_EQ(str(u.ToString()), "http://h?");

  ASSERT_TRUE(u.Parse("http://[v7.x:y]/"));
  EXPECT_FALSE(u.IsIPv6());
  EXPECT_EQ(str(u.ToString()), "http://[v7.x:y]/");
}

TEST(SIUri, RefusesWhatIsNotAUriAndKeepsTheOldValue) {
  SIUri u;
  ASSERT_TRUE(u.Parse("http://kept/"));
  for (char const* bad : {"http://a b/", "http://h/%zz", "http://[::1/", ":nope", "a:b:c[", "http://h/\x01"})
    EXPECT_FALSE(u.Parse(bad)) << bad;
  EXPECT_EQ(str(u.ToString()), "http://kept/");
}

TEST(SIUri, Normalises) {
  static char const* const kCases[][2] = {
      {"HTTP://Example.COM/a/./b/../c/%7euser", "http://example.com/a/c/~user"},
      {"http://h/%3a%2f", "http://h/%3A%2F"},
      {"http://h/a/../../b", "http://h/b"},
  };
  for (auto const& c : kCases) {
    SIUri u;
    ASSERT_TRUE(u.Parse(c[0]));
    ASSERT_TRUE(u.Normalize());
    EXPECT_EQ(str(u.ToString()), c[1]);
  }
}

TEST(SIUri, BuildsTextFromParts) {
  SIUri u;
  u.SetScheme("ftp");
  u.SetHost("::1");
  u.SetPort("21");
  u.SetPath("/pub");
  u.SetQuery("type=i");
  EXPECT_EQ(str(u.ToString()), "ftp://[::1]:21/pub?type=i");
  EXPECT_TRUE(u.IsValid());
  u.SetPath("no-slash");  // a path after an authority must begin with "/"
  EXPECT_FALSE(u.IsValid());
}

// A few hundred generated URIs and references, split and joined by Python.
TEST(SIUri, AgreesWithPythonUrllib) {
  if (::access("/usr/bin/python3", X_OK) != 0) GTEST_SKIP() << "python3 is not installed";
  std::string cmd = "/usr/bin/python3 '" + std::string(QUENLIB_SOURCE_DIR) + "/tests/web/uri_reference.py'";
  FILE* p = ::popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string all;
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) all.append(buf, n);
  ASSERT_EQ(::pclose(p), 0);
  std::stringstream lines(all);
  int parsed = 0, joined = 0;
  for (std::string line; std::getline(lines, line);) {
    auto f = SplitTabs(line);
    if (f[0] == "R") {
      ASSERT_EQ(f.size(), 4u);
      EXPECT_EQ(Resolved(f[1].c_str(), f[2].c_str()), f[3]) << f[1] << " + " << f[2];
      ++joined;
      continue;
    }
    ASSERT_EQ(f.size(), 9u);
    SIUri u;
    ASSERT_TRUE(u.Parse(f[1].c_str())) << f[1];
    std::string netloc = (u.HasUserInfo() ? str(u.GetUserInfo()) + "@" : "") +
                         (u.IsIPv6() ? "[" + str(u.GetHost()) + "]" : str(u.GetHost())) +
                         (u.HasPort() ? ":" + str(u.GetPort()) : "");
    std::vector<std::string> mine = {str(u.GetScheme()), netloc, str(u.GetHost()),
                                     u.HasPort() ? str(u.GetPort()) : "", str(u.GetPath()),
                                     str(u.GetQuery()), str(u.GetFragment())};
    EXPECT_EQ(mine, std::vector<std::string>(f.begin() + 2, f.end())) << f[1];
    EXPECT_EQ(str(u.ToString()), f[1]);
    ++parsed;
  }
  EXPECT_EQ(parsed, 300);
  EXPECT_EQ(joined, 300);
}

using QuenUri = quentest::QuenTest;

TEST_F(QuenUri, ResolvesAndParses) {
  auto r = quentest::RunQuen("uri resolve 'http://a/b/c/d;p?q' '../../g'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "http://a/g\n");
  r = quentest::RunQuen("uri parse 'http://[::1]:80/p?'");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("host:     \"::1\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("query:    \"\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("fragment: (none)"), std::string::npos) << r.out;
  EXPECT_EQ(quentest::RunQuen("uri parse 'a b'").status, 1);
  EXPECT_EQ(quentest::RunQuen("uri resolve relative g").status, 1);
}

// Found by fuzzing: removing dot segments must not turn a path into an
// authority or a scheme.
TEST(SIUri, DotSegmentsNeverMakeAnAuthority) {
  SIUri u;
  ASSERT_TRUE(u.Parse("ht:/.//qa//g"));
  ASSERT_TRUE(u.Normalize());
  EXPECT_FALSE(u.HasAuthority());
  EXPECT_EQ(str(u.GetPath()), "/.//qa//g");
  EXPECT_EQ(Resolved("s:/a/b", "/..//x"), "s:/.//x");
  ASSERT_TRUE(u.Parse("a/../b:c"));  // nor a colon in a first segment a scheme
  ASSERT_TRUE(u.Normalize());
  EXPECT_EQ(str(u.ToString()), "./b:c");
}

TEST(SIUri, NormalisingTwiceChangesNothingMore) {
  for (char const* text : {"http://h/a/.././b/../2", "//h/:ob/.././:ob/../2", "s:/a/b/../../c", "http://h/a/b/..", "./rps:/../"}) {
    SIUri once;
    ASSERT_TRUE(once.Parse(text));
    ASSERT_TRUE(once.Normalize());
    SIUri twice = once;
    ASSERT_TRUE(twice.Normalize());
    EXPECT_EQ(str(twice.ToString()), str(once.ToString())) << text;
    EXPECT_EQ(str(once.GetPath()).find("/."), std::string::npos) << text;
  }
}
