// slocaleinfo.h: what a locale says about itself, from ICU.
//
// `SLocaleInfo` names a locale by its ICU identifier ("de_CH", "en_US") and
// answers the questions a product asks when it shows numbers and dates:
// its display name, decimal and grouping separators, first day of the
// week, date and time patterns, and the day, month, AM/PM and era names.
// Texts come back in the code set of the thread's current locale, as every
// `SAnsiString` of the library ("?" for what that code set cannot show).
//
//   SLocaleInfo de("de_CH");
//   de.GetDisplayName();           // "Deutsch (Schweiz)"
//   de.GetDisplayNameIn("en");     // "German (Switzerland)"
//   de.GetGroupingSeparator();     // "’"
//   de.GetFirstDayOfWeek();        // 1 (Monday)
//   de.GetLongMonth(3);            // "März"
//   SLocaleInfo::Current();        // the thread's LC_TIME locale
//
// Date and time patterns use ICU's pattern letters ("dd.MM.yy", "HH:mm").
// The localised names are made by formatting fixed dates of 1999, the same
// way the date formatting of `SDateTime::Format` gets them: it reads them
// from here. Information is built once per locale and code set and shared.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <memory>

namespace QuenLibA500 {

class QUENLIB_API SLocaleInfo {
 public:
  enum Style { Short = 0, Medium = 1, Long = 2, Full = 3 };

  // Any identifier ICU accepts; a locale ICU has no data for answers with
  // the root locale's data (IsKnown() tells).
  explicit SLocaleInfo(char const* localeId);
  // The thread's LC_TIME locale ("de_DE.UTF-8" -> "de_DE"); the C and POSIX
  // locales are "en_US_POSIX".
  static SLocaleInfo Current();

  SAnsiString GetId() const;
  // True when ICU has data for the locale's language.
  bool IsKnown() const;
  // The name of the locale in its own language, or in another locale's.
  SAnsiString GetDisplayName() const;
  SAnsiString GetDisplayNameIn(char const* inLocaleId) const;

  SAnsiString GetDecimalSeparator() const;
  SAnsiString GetGroupingSeparator() const;
  // 0 = Sunday .. 6 = Saturday.
  int GetFirstDayOfWeek() const;
  SAnsiString GetDatePattern(Style style) const;
  SAnsiString GetTimePattern(Style style) const;

  // 0 = Sunday .. 6 = Saturday; empty out of range.
  SAnsiString GetShortDay(int dayOfWeek) const;
  SAnsiString GetLongDay(int dayOfWeek) const;
  // 1 = January .. 12 = December; empty out of range.
  SAnsiString GetShortMonth(int month) const;
  SAnsiString GetLongMonth(int month) const;
  // The morning marker for true; the short one is the long one's first
  // character.
  SAnsiString GetShortAM(bool morning) const;
  SAnsiString GetLongAM(bool morning) const;
  // The era of years 1 on for true ("AD"), of the years before for false.
  SAnsiString GetEra(bool commonEra) const;

  struct Data;

 private:
  std::shared_ptr<Data const> m_data;
};

}  // namespace QuenLibA500
