// Multibyte strings made of arbitrary bytes, walked, searched, edited and
// case-mapped in UTF-8 and EUC-JP. Nothing may read or write outside the
// buffers, and the results must stay inside the text.
#include <quenlib/slogger.h>
#include <quenlib/sstring.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace QuenLibA500;

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

bool Inside(SAnsiString const& s, SAnsiString::iterator const& it) {
  ptrdiff_t off = it - SAnsiString::iterator(s);
  return off >= 0 && static_cast<uint64_t>(off) <= s.getLength();
}

void Exercise(SAnsiString s, SAnsiString const& needle) {
  unsigned chars = s.getNChars();
  Check(chars <= s.getLength());
  unsigned walked = 0;
  for (SAnsiString::iterator it(s); !it.isAtEnd(); ++it) ++walked;
  Check(walked == chars || std::memchr(s.getString(), 0, s.getLength()) != nullptr);

  SAnsiString::iterator hit = s.find(needle);
  Check(Inside(s, hit));
  Check(Inside(s, s.findLast(needle.getAt(0u))));
  SAnsiStringCI ci(s);
  Check(Inside(ci, ci.find(needle)));

  SAnsiString piece = s.mid(chars / 3, chars / 2);
  Check(piece.getLength() <= s.getLength());
  (void)s.compare(needle);
  (void)s.compareNoCase(needle);

  SAnsiString edit(s);
  edit.setAt(chars / 2, needle.getAt(0u));
  edit.insertChars(chars / 4, needle);
  edit.deleteChars(chars / 5, 3);
  edit.toUpper();
  edit.toLower();
  edit.trim();
  Check(edit.getString()[edit.getLength()] == 0);

  std::string raw(s.getString(), s.getLength());
  raw.push_back('\0');
  MakeUpperCase(raw.data(), static_cast<unsigned>(-1));
  Check(std::strlen(raw.data()) <= s.getLength());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static bool once = [] {
    SLogger::SetAssertEnabled(false);
    return true;
  }();
  (void)once;
  if (size < 2) return 0;
  // The first byte picks the locale and where the needle starts.
  char const* locale = (data[0] & 1) ? "ja_JP.EUC-JP" : "C.UTF-8";
  if (!std::setlocale(LC_ALL, locale)) return 0;
  size_t split = 1 + (data[0] >> 1) % size;
  if (split > size) split = size;
  char const* text = reinterpret_cast<char const*>(data + 1);
  SAnsiString hay(text, static_cast<unsigned>(split - 1));
  SAnsiString needle(text + split - 1, static_cast<unsigned>(size - split));
  Exercise(hay, needle);
  Exercise(needle, hay);
  return 0;
}
