// sstringhelper.h: filling message templates.
//
// `SStringHelper::formatMessage` replaces "%1".."%9" in a template by the
// arguments of those numbers, in one pass from left to right, so an
// argument's own text is never scanned again (a path containing "%2" stays
// as it is). "%%" writes one "%". A placeholder without an argument, and a
// "%" not followed by a digit 1..9 or another "%", stay as written. Only one
// digit is read: "%10" is argument 1 followed by "0".
//
//   SAnsiString text = QuenLibA500::SStringHelper::formatMessage(
//       "could not open %1: %2", path, strerror(errno));
//
// Every message of the library with numbered placeholders is filled here.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class QUENLIB_API SStringHelper {
 public:
  SStringHelper() = delete;

  // Fills the template from args[0..count-1] ("%1" is args[0]).
  static SAnsiString formatMessage(char const* messageTemplate, SAnsiString const* args, int count);

  template <class... A>
  static SAnsiString formatMessage(char const* messageTemplate, A const&... args) {
    static_assert(sizeof...(A) <= 9, "templates take at most nine arguments");
    SAnsiString const list[] = {SAnsiString(args)..., SAnsiString()};
    return formatMessage(messageTemplate, list, static_cast<int>(sizeof...(A)));
  }
};

}  // namespace QuenLibA500
