// Multibyte strings made of arbitrary bytes, walked, searched, edited and
// case-mapped in UTF-8 and EUC-JP. Nothing may read or write outside the
// buffers, and the results must stay inside the text.
#include <quenlib/slogger.h>
#include <quenlib/sstring.h>

#include <algorithm>
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

  // setAt of a one-byte character by index takes the private copy itself
  // when the text is single-byte; it must give what the general path (by
  // iterator, through copyOnWrite) gives, and leave the shared source as
  // it was.
  std::string const before(s.getString(), s.getLength());
  char const one = static_cast<char>(0x21 + (s.getLength() + needle.getLength()) % 0x5E);
  SAnsiString byIndex(s), byIterator(s);
  byIndex.setAt(chars / 2, one);
  SAnsiString::iterator at(byIterator);
  at += chars / 2;
  if (at) byIterator.setAt(at, SChar_t<char, 0>(one));
  bool const singleByte = std::all_of(before.begin(), before.end(), [](char c) {
    return static_cast<unsigned char>(c) - 1u < 0x7Fu;
  });
  if (singleByte) {
    Check(byIndex.getLength() == byIterator.getLength());
    Check(std::memcmp(byIndex.getString(), byIterator.getString(), byIndex.getLength() + 1) == 0);
    Check(byIndex.getNChars() == byIterator.getNChars());
  }
  Check(std::string(s.getString(), s.getLength()) == before);

  // Appending the needle a unit at a time (in place while the buffer is
  // private and has room) must give what one-unit texts appended give:
  // the same text, the same character count, the shared source unchanged.
  SAnsiString byUnit(s), byText(s);
  for (unsigned i = 0; i < needle.getLength(); ++i) {
    char const c = needle.getString()[i];
    byUnit += c;
    if (c != 0) byText.concat(&c, 1);
    if (i == needle.getLength() / 2) (void)byUnit.getNChars();  // the kind known midway
  }
  Check(byUnit.getLength() == byText.getLength());
  Check(std::memcmp(byUnit.getString(), byText.getString(), byUnit.getLength() + 1) == 0);
  Check(byUnit.getNChars() == byText.getNChars());
  Check(std::string(s.getString(), s.getLength()) == before);

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
