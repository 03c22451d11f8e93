// version.cpp: the version string of the loaded library.
#include <quenlib/version.h>

#include <cctype>
#include <string_view>

namespace QuenLibA500 {

#define QL_STR2(x) #x
#define QL_STR(x) QL_STR2(x)

char const* LibraryVersion() {
  return QL_STR(QUENLIB_VERSION_MAJOR) "." QL_STR(QUENLIB_VERSION_MINOR) "." QL_STR(
      QUENLIB_VERSION_PATCH);
}

}  // namespace QuenLibA500

namespace QuenLibA500 {

namespace {

std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

// The next part of a dotted text (empty once the text is used up).
std::string_view NextPart(std::string_view& rest) {
  size_t const dot = rest.find('.');
  std::string_view const part = rest.substr(0, dot);
  rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
  return part;
}

// Compares digit strings as numbers of any length.
int CompareNumbers(std::string_view a, std::string_view b) {
  while (a.size() > 1 && a.front() == '0') a.remove_prefix(1);
  while (b.size() > 1 && b.front() == '0') b.remove_prefix(1);
  if (a.empty()) a = "0";
  if (b.empty()) b = "0";
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  int const c = a.compare(b);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

int CompareParts(std::string_view a, std::string_view b) {
  auto digits = [](std::string_view s) {
    size_t n = 0;
    while (n < s.size() && std::isdigit(static_cast<unsigned char>(s[n]))) ++n;
    return n;
  };
  size_t const da = digits(a), db = digits(b);
  int const byNumber = CompareNumbers(a.substr(0, da), b.substr(0, db));
  if (byNumber != 0) return byNumber;
  std::string_view const ta = a.substr(da), tb = b.substr(db);
  if (ta.empty() != tb.empty()) return ta.empty() ? 1 : -1;  // a tail marks a pre-release
  int const c = ta.compare(tb);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

}  // namespace

int CompareVersions(char const* a, char const* b) {
  std::string_view restA = TrimBlanks(a != nullptr ? a : "");
  std::string_view restB = TrimBlanks(b != nullptr ? b : "");
  while (!restA.empty() || !restB.empty()) {
    int const c = CompareParts(NextPart(restA), NextPart(restB));
    if (c != 0) return c;
  }
  return 0;
}

}  // namespace QuenLibA500
