// sresourcecatalog.h: localised resource strings and HTML templates.
//
// A product keeps its texts in catalogs, one per language, compiled with
// ICU's genrb into `<locale>.res` files in one directory (`root.res` holds
// the texts every language falls back to). Each catalog is a table with
// two sub-tables: `strings` (resource strings by identifier) and `html`
// (named HTML templates):
//
//   de {
//     strings { GREETING { "Guten Tag, %1!" } }
//     html    { LOGIN { "<p>Bitte melden Sie sich an.</p>" } }
//   }
//
// A catalog opened for "de_CH" looks an identifier up in de_CH, then de,
// then root: the first catalog that has it wins.
//
//   SResourceCatalog texts("/opt/product/lang", "de_CH");
//   SAnsiString greeting;
//   if (texts.GetString("GREETING", greeting) == SResourceCatalog::Found)
//     greeting = SResourceCatalog::Fill(greeting, {"Anna"});
//   SResourceCatalog::InstalledLanguages("/opt/product/lang");  // {"de", "en"}
//
// Texts come back in the code set of the thread's current locale; the
// library's own messages are not in catalogs and stay English.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <initializer_list>
#include <memory>
#include <vector>

namespace QuenLibA500 {

struct SResourceEntry {
  SAnsiString id;
  SAnsiString text;
};

class QUENLIB_API SResourceCatalog {
 public:
  enum Status {
    Found = 0,
    MissingId = 1,  // no catalog of the chain has the identifier
    NoCatalog = 2,  // no catalog of the chain exists in the directory
  };

  SResourceCatalog(SAnsiString const& directory, SAnsiString const& locale);
  ~SResourceCatalog();
  SResourceCatalog(SResourceCatalog&&) noexcept;
  SResourceCatalog& operator=(SResourceCatalog&&) noexcept;

  // True when at least one catalog of the chain was found.
  bool IsOpen() const;
  // The locales looked in, most specific first, as found ("de_CH", "de",
  // "root"); the missing ones are left out.
  std::vector<SAnsiString> Chain() const;

  // On Found, `text` holds the text; otherwise it is left empty.
  Status GetString(char const* id, SAnsiString& text) const;
  // The text, or empty for a missing identifier.
  SAnsiString GetString(char const* id) const;
  Status GetHtml(char const* name, SAnsiString& html) const;
  // Every string the catalog shows, fallbacks included, ordered by
  // identifier (bytewise).
  std::vector<SResourceEntry> GetCollection() const;

  // Replaces "%1".."%9" by the arguments; a placeholder without an argument
  // stays as it is, "%%" gives "%".
  static SAnsiString Fill(SAnsiString const& templ, std::initializer_list<SAnsiString> args);
  // The locales of the catalogs in a directory, sorted, root left out.
  static std::vector<SAnsiString> InstalledLanguages(SAnsiString const& directory);

 private:
  struct Impl;
  Status Lookup(char const* table, char const* id, SAnsiString& text) const;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace QuenLibA500
