// XML documents: parsing with error places, path look-ups, building and
// writing, and hostile documents.
#include <quenlib/sxmldocument.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>

using namespace QuenLibA500;

namespace {

char const* const kLandscape = R"(<?xml version="1.0" encoding="UTF-8"?>
<Landscape version="2">
  <Services>
    <Service name="db1" uuid="u-1"><Server>alpha</Server></Service>
    <Service name="db2"><Server>beta</Server><Database>sales &amp; more</Database></Service>
  </Services>
  <Services><Service name="db3"/></Services>
</Landscape>
)";

std::string Names(std::vector<SXmlElement> const& elements) {
  std::string out;
  for (auto const& e : elements) {
    SAnsiString name;
    out += e.getAttribute("name", name) ? name.getString() : "?";
    out += ";";
  }
  return out;
}

}  // namespace

TEST(SXmlDocument, FindsElementsAttributesAndText) {
  SXmlDocument doc;
  ASSERT_TRUE(doc.parse(kLandscape)) << doc.getErrorText().getString();
  EXPECT_EQ(Names(doc.findElements("Landscape/Services/Service")), "db1;db2;db3;");
  SXmlElement const db2 = doc.findElements("Landscape/Services/Service")[1];
  EXPECT_STREQ(db2.findElement("Database").getText().getString(), "sales & more");
  EXPECT_STREQ(doc.findElement("Landscape/Services/Service/Server").getText().getString(), "alpha");
  EXPECT_STREQ(doc.getRoot().getName().getString(), "Landscape");
  SAnsiString value("unchanged");
  EXPECT_FALSE(db2.getAttribute("uuid", value));
  EXPECT_STREQ(value.getString(), "unchanged");
  EXPECT_TRUE(doc.getRoot().hasAttribute("version"));
  // Wrong root, wrong case, missing steps: empty handles, never a crash.
  EXPECT_FALSE(doc.findElement("Services/Service").isValid());
  EXPECT_FALSE(doc.findElement("landscape").isValid());
  EXPECT_FALSE(doc.findElement("Landscape/Nope/Service").getText().getString()[0] != '\0');
  EXPECT_EQ(doc.getRoot().getChildren().size(), 2u);
  EXPECT_EQ(doc.getRoot().getChildren("Other").size(), 0u);
}

TEST(SXmlDocument, ReportsTheLineAndColumnOfTheFirstError) {
  struct Case {
    char const* text;
    uint32_t line;
  } const cases[] = {
      {"<a>\n  <b>\n</a>", 3},
      {"<a x='1' x='2'/>", 1},
      {"<a>\n\n text & more</a>", 3},
      {"", 1},
      {"<?xml version='1.0'?>\n<!-- no root -->", 2},
  };
  for (auto const& c : cases) {
    SXmlDocument doc;
    EXPECT_FALSE(doc.parse(c.text)) << c.text;
    EXPECT_EQ(doc.getStatus(), SXmlDocument::stNotWellFormed);
    EXPECT_EQ(doc.getErrorLine(), c.line) << c.text << ": " << doc.getErrorText().getString();
    EXPECT_GT(doc.getErrorColumn(), 0u);
    EXPECT_FALSE(doc.getErrorText().isEmpty());
    EXPECT_FALSE(doc.getRoot().isValid());
  }
}

// The parser cuts a long message at a fixed number of UTF-16 units, which
// can split a surrogate pair: the error text must still come out. The tag
// name of 1,100 characters outside the BMP puts the cut inside a pair.
TEST(SXmlDocument, AMessageCutInsideASurrogatePairStillHasText) {
  std::string text = "<";
  for (int i = 0; i < 1100; ++i) text += "\xF0\x90\x80\x80";  // U+10000
  text += "<";                                                      // ends the tag unfinished
  SXmlDocument doc;
  EXPECT_FALSE(doc.parse(text.data(), text.size()));
  EXPECT_FALSE(doc.getErrorText().isEmpty());
  EXPECT_FALSE(doc.getRoot().isValid());
}

TEST(SXmlDocument, BuildsWritesAndReadsBack) {
  SXmlDocument out;
  ASSERT_TRUE(out.create("Landscape"));
  SXmlElement const service = out.getRoot().addChild("Services").addChild("Service");
  EXPECT_TRUE(service.setAttribute("name", "a<b&\"c\""));
  EXPECT_TRUE(service.addChild("Server").setText("x & <y>"));
  EXPECT_FALSE(out.getRoot().addChild("1bad").isValid());
  EXPECT_FALSE(service.setAttribute("bad name", "v"));
  SXmlDocument bad;
  EXPECT_FALSE(bad.create("no spaces"));
  EXPECT_EQ(bad.getStatus(), SXmlDocument::stBadName);

  char path[] = "/tmp/xmltestXXXXXX";
  int const fd = ::mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  ASSERT_TRUE(out.saveToFile(path));
  SXmlDocument in;
  ASSERT_TRUE(in.parseFile(path)) << in.getErrorText().getString();
  std::remove(path);
  SAnsiString name;
  ASSERT_TRUE(in.findElement("Landscape/Services/Service").getAttribute("name", name));
  EXPECT_STREQ(name.getString(), "a<b&\"c\"");
  EXPECT_STREQ(in.findElement("Landscape/Services/Service/Server").getText().getString(), "x & <y>");
  EXPECT_FALSE(in.parseFile("/nonexistent/dir/file.xml"));
  EXPECT_EQ(in.getStatus(), SXmlDocument::stIoError);
}

TEST(SXmlDocument, HostileDocumentsReachNoFileAndDoNotExplode) {
  std::string laughs = "<!DOCTYPE r [<!ENTITY a0 'xxxxxxxxxx'>";
  for (int i = 1; i < 10; ++i) {
    std::string const prev = "&a" + std::to_string(i - 1) + ";";
    std::string body;
    for (int k = 0; k < 10; ++k) body += prev;
    laughs += "<!ENTITY a" + std::to_string(i) + " '" + body + "'>";
  }
  laughs += "]><r>&a9;</r>";
  SXmlDocument doc;
  EXPECT_FALSE(doc.parse(laughs.data(), laughs.size()));

  SXmlDocument external;
  bool const parsed = external.parse(
      "<!DOCTYPE r [<!ENTITY secret SYSTEM 'file:///etc/hostname'>]><r>&secret;</r>");
  if (parsed) {
    EXPECT_TRUE(external.getRoot().getText().isEmpty());
  }
}
