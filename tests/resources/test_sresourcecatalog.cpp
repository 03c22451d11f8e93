// Resource catalogs: the sample catalogs (compiled by genrb at build time)
// read along the de_CH -> de -> root chain.
#include "text/text_support.h"
#include <quenlib/sresourcecatalog.h>

using namespace QuenLibA500;
using quentest::str;

namespace {

std::string const kCatalogs = std::string(QUENLIB_BINARY_DIR) + "/catalogs";

class Catalogs : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(locale_.ok()); }

 private:
  quentest::LocaleScope locale_{"C.UTF-8"};
};

std::string Lookup(char const* locale, char const* id) {
  SResourceCatalog catalog(kCatalogs.c_str(), locale);
  static char const* const kFailures[] = {"", "<missing>", "<no catalog>"};
  SAnsiString text;
  SResourceCatalog::Status st = catalog.GetString(id, text);
  return st == SResourceCatalog::Found ? str(text) : kFailures[st];
}

}  // namespace

TEST_F(Catalogs, FollowTheFallbackChain) {
  static char const* const kCases[][3] = {
      {"de_CH", "GREETING", "Grüezi, %1!"}, {"de_CH", "STREET", "Strasse"},
      {"de_CH", "LOGOUT", "Abmelden"},      {"de_CH", "PRODUCT_NAME", "Example Server"},
      {"de", "STREET", "Straße"},           {"de_AT", "GREETING", "Guten Tag, %1!"},
      {"en_GB", "LOGOUT", "Log out"},       {"fr", "LOGOUT", "Log out"},
      {"de_CH", "NO_SUCH_ID", "<missing>"}, {"../../etc/x", "LOGOUT", "Log out"},
  };
  for (auto const& c : kCases) EXPECT_EQ(Lookup(c[0], c[1]), c[2]) << c[0] << " " << c[1];
  EXPECT_EQ(Lookup("de", nullptr), "<missing>");
}

TEST_F(Catalogs, ReportWhatWasFound) {
  SResourceCatalog swiss(kCatalogs.c_str(), "de_CH");
  std::vector<std::string> chain;
  for (auto const& s : swiss.Chain()) chain.push_back(str(s));
  EXPECT_EQ(chain, (std::vector<std::string>{"de_CH", "de", "root"}));
  EXPECT_EQ(str(swiss.GetString("NO_SUCH_ID")), "");

  SResourceCatalog none("/nonexistent", "de");
  EXPECT_FALSE(none.IsOpen());
  SAnsiString text("left over");
  EXPECT_EQ(none.GetString("LOGOUT", text), SResourceCatalog::NoCatalog);
  EXPECT_EQ(str(text), "");
}

TEST_F(Catalogs, HtmlTemplatesComeFromTheSameCatalogs) {
  SAnsiString html;
  ASSERT_EQ(SResourceCatalog(kCatalogs.c_str(), "de_CH").GetHtml("LOGIN_PAGE", html), SResourceCatalog::Found);
  EXPECT_EQ(str(html).substr(0, 17), "<h1>Anmelden</h1>");
  ASSERT_EQ(SResourceCatalog(kCatalogs.c_str(), "en").GetHtml("LOGIN_PAGE", html), SResourceCatalog::Found);
  EXPECT_EQ(str(html).substr(0, 16), "<h1>Sign in</h1>");
  // Strings and templates are separate name spaces.
  EXPECT_EQ(SResourceCatalog(kCatalogs.c_str(), "de").GetHtml("LOGOUT", html), SResourceCatalog::MissingId);
}

TEST_F(Catalogs, CollectEveryStringOnce) {
  std::vector<std::string> lines;
  for (auto const& e : SResourceCatalog(kCatalogs.c_str(), "de_CH").GetCollection())
    lines.push_back(str(e.id) + "=" + str(e.text));
  EXPECT_EQ(lines, (std::vector<std::string>{"GREETING=Grüezi, %1!", "LOGOUT=Abmelden",
                                             "PRODUCT_NAME=Example Server", "STREET=Strasse",
                                             "UNSAVED=%1 von %2 Dateien sind nicht gespeichert."}));
}

TEST_F(Catalogs, ListInstalledLanguages) {
  std::vector<std::string> names;
  for (auto const& s : SResourceCatalog::InstalledLanguages(kCatalogs.c_str())) names.push_back(str(s));
  EXPECT_EQ(names, (std::vector<std::string>{"de", "de_CH", "en"}));
  quentest::TempDir dir;
  for (char const* f : {"fr.res", "root.res", "notes.txt", "bad name.res", "pt_BR.res"}) quentest::WriteFile(dir / f, "");
  names.clear();
  for (auto const& s : SResourceCatalog::InstalledLanguages((dir / "").c_str())) names.push_back(str(s));
  EXPECT_EQ(names, (std::vector<std::string>{"fr", "pt_BR"}));
  EXPECT_TRUE(SResourceCatalog::InstalledLanguages("/nonexistent").empty());
}

TEST(ResourceFill, ReplacesNumberedPlaceholders) {
  EXPECT_EQ(str(SResourceCatalog::Fill("%1 von %2 Dateien", {"3", "10"})), "3 von 10 Dateien");
  EXPECT_EQ(str(SResourceCatalog::Fill("%2%1 %3 100%% %", {"a", "b"})), "ba %3 100% %");
}

using QuenLang = quentest::QuenTest;

TEST_F(QuenLang, ListsAndShows) {
  auto r = quentest::RunQuen("lang list '" + kCatalogs + "'");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("de_CH    Deutsch (Schweiz)"), std::string::npos) << r.out;
  r = quentest::RunQuen("lang show '" + kCatalogs + "' de_CH STREET");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "Strasse\n");
  r = quentest::RunQuen("lang show '" + kCatalogs + "' de NO_SUCH_ID");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "quen: no string NO_SUCH_ID for de\n");
}
