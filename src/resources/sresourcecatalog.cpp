// Resource catalogs: ICU resource bundles looked up along the locale's
// fallback chain.
#include <quenlib/sresourcecatalog.h>

#include <dirent.h>
#include <unicode/ures.h>
#include <unicode/uloc.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>

#include "diagnostics/trace.h"
#include "text/icutext.h"

namespace QuenLibA500 {

namespace {

struct BundleCloser {
  void operator()(UResourceBundle* b) const { ures_close(b); }
};
using Bundle = std::unique_ptr<UResourceBundle, BundleCloser>;

// Locale names are file names here: letters, digits and "_" only, so that
// no name can reach outside the directory.
bool IsPlainLocaleName(std::string const& s) {
  if (s.empty() || s.size() > 64) return false;
  return std::all_of(s.begin(), s.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  });
}

// "de_CH" -> {"de_CH", "de", "root"}.
std::vector<std::string> FallbackChain(std::string const& locale) {
  std::vector<std::string> chain;
  std::string current = locale;
  while (!current.empty() && current != "root") {
    chain.push_back(current);
    char parent[ULOC_FULLNAME_CAPACITY] = {};
    UErrorCode status = U_ZERO_ERROR;
    uloc_getParent(current.c_str(), parent, sizeof parent, &status);
    if (U_FAILURE(status)) break;
    current = parent;
  }
  chain.push_back("root");
  return chain;
}

SAnsiString ToText(UResourceBundle* item) {
  int32_t len = 0;
  UErrorCode status = U_ZERO_ERROR;
  UChar const* s = ures_getString(item, &len, &status);
  if (U_FAILURE(status)) return SAnsiString();
  return icutext::ToLocaleText(s, len);
}

}  // namespace

struct SResourceCatalog::Impl {
  std::vector<std::pair<std::string, Bundle>> levels;  // most specific first
};

SResourceCatalog::SResourceCatalog(SAnsiString const& directory, SAnsiString const& locale)
    : m_impl(std::make_unique<Impl>()) {
  std::string dir = directory.getString();
  if (dir.empty() || dir.back() != '/') dir += '/';
  std::string name = locale.getString();
  if (!name.empty() && !IsPlainLocaleName(name)) name.clear();  // falls back to root alone
  for (std::string const& level : FallbackChain(name)) {
    UErrorCode status = U_ZERO_ERROR;
    Bundle b(ures_openDirect(dir.c_str(), level.c_str(), &status));
    if (U_SUCCESS(status) && b) m_impl->levels.emplace_back(level, std::move(b));
  }
  if (m_impl->levels.empty())
    QL_TRACE(SLogger::tl_M, "SResourceCatalog: no catalog for %1 in %2", locale, directory);
}

SResourceCatalog::~SResourceCatalog() = default;
SResourceCatalog::SResourceCatalog(SResourceCatalog&&) noexcept = default;
SResourceCatalog& SResourceCatalog::operator=(SResourceCatalog&&) noexcept = default;

bool SResourceCatalog::IsOpen() const { return !m_impl->levels.empty(); }

std::vector<SAnsiString> SResourceCatalog::Chain() const {
  std::vector<SAnsiString> out;
  for (auto const& level : m_impl->levels) out.emplace_back(level.first.c_str());
  return out;
}

SResourceCatalog::Status SResourceCatalog::Lookup(char const* table, char const* id, SAnsiString& text) const {
  text = SAnsiString();
  if (m_impl->levels.empty()) return NoCatalog;
  if (!id) return MissingId;
  for (auto const& level : m_impl->levels) {
    UErrorCode status = U_ZERO_ERROR;
    Bundle sub(ures_getByKey(level.second.get(), table, nullptr, &status));
    if (U_FAILURE(status)) continue;
    Bundle item(ures_getByKey(sub.get(), id, nullptr, &status));
    if (U_FAILURE(status) || ures_getType(item.get()) != URES_STRING) continue;
    text = ToText(item.get());
    return Found;
  }
  return MissingId;
}

SResourceCatalog::Status SResourceCatalog::GetString(char const* id, SAnsiString& text) const {
  return Lookup("strings", id, text);
}

SAnsiString SResourceCatalog::GetString(char const* id) const {
  SAnsiString text;
  Lookup("strings", id, text);
  return text;
}

SResourceCatalog::Status SResourceCatalog::GetHtml(char const* name, SAnsiString& html) const {
  return Lookup("html", name, html);
}

std::vector<SResourceEntry> SResourceCatalog::GetCollection() const {
  std::vector<SResourceEntry> out;
  std::set<std::string> seen;
  for (auto const& level : m_impl->levels) {
    UErrorCode status = U_ZERO_ERROR;
    Bundle sub(ures_getByKey(level.second.get(), "strings", nullptr, &status));
    if (U_FAILURE(status)) continue;
    ures_resetIterator(sub.get());
    while (ures_hasNext(sub.get())) {
      status = U_ZERO_ERROR;
      Bundle item(ures_getNextResource(sub.get(), nullptr, &status));
      if (U_FAILURE(status)) break;
      char const* key = ures_getKey(item.get());
      if (!key || ures_getType(item.get()) != URES_STRING) continue;
      if (!seen.insert(key).second) continue;  // a nearer level has it
      out.push_back({SAnsiString(key), ToText(item.get())});
    }
  }
  std::sort(out.begin(), out.end(), [](SResourceEntry const& a, SResourceEntry const& b) {
    return std::strcmp(a.id.getString(), b.id.getString()) < 0;
  });
  return out;
}

SAnsiString SResourceCatalog::Fill(SAnsiString const& templ, std::initializer_list<SAnsiString> args) {
  std::string out;
  char const* p = templ.getString();
  size_t n = templ.getLength();
  for (size_t i = 0; i < n; ++i) {
    if (p[i] != '%' || i + 1 >= n) {
      out += p[i];
      continue;
    }
    char next = p[i + 1];
    if (next == '%') {
      out += '%';
      ++i;
      continue;
    }
    size_t index = size_t(next - '1');
    if (next >= '1' && next <= '9' && index < args.size()) {
      SAnsiString const& arg = *(args.begin() + index);
      out.append(arg.getString(), arg.getLength());
      ++i;
      continue;
    }
    out += p[i];
  }
  return SAnsiString(out.data(), unsigned(out.size()));
}

std::vector<SAnsiString> SResourceCatalog::InstalledLanguages(SAnsiString const& directory) {
  std::vector<std::string> names;
  DIR* dir = opendir(directory.getString());
  if (!dir) return {};
  while (dirent* e = readdir(dir)) {
    std::string file = e->d_name;
    if (file.size() <= 4 || file.compare(file.size() - 4, 4, ".res") != 0) continue;
    std::string name = file.substr(0, file.size() - 4);
    if (name == "root" || name == "res_index" || !IsPlainLocaleName(name)) continue;
    names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  std::vector<SAnsiString> out;
  for (auto const& n : names) out.emplace_back(n.c_str());
  return out;
}

}  // namespace QuenLibA500
