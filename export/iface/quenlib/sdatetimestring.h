// sdatetimestring.h: localised day, month, era and AM/PM names.
//
// The names come from the current thread's LC_TIME locale (set with
// setlocale or uselocale), formatted by ICU from fixed reference dates in
// 1999. An index out of range, or a name that cannot be produced, gives the
// empty text.
//
//   setlocale(LC_ALL, "en_US.UTF-8");
//   SDateTimeString::GetLongDay(0);      // "Sunday"
//   SDateTimeString::GetShortMonth(3);   // "Mar"
//   SDateTimeString::GetShortAM(false);  // "P"
//   SDateTimeString::GetEra(SDate(2000, 1, 1));  // "AD"
//
// Names are in the locale's own code set (EUC-JP bytes in ja_JP.eucjp).
// They are read from `SLocaleInfo::Current()` (slocaleinfo.h), which also
// answers separators, week start and patterns.
//
// `SDateTime::Format` uses these for the name fields of its patterns.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class SDate;

class QUENLIB_API SDateTimeString {
 public:
  // 0 = Sunday .. 6 = Saturday.
  static SAnsiString GetShortDay(int dayOfWeek);
  static SAnsiString GetLongDay(int dayOfWeek);
  // 1 = January .. 12 = December.
  static SAnsiString GetShortMonth(int month);
  static SAnsiString GetLongMonth(int month);
  // The morning marker for true, the afternoon marker for false. The short
  // marker is the first character of the long one.
  static SAnsiString GetShortAM(bool morning);
  static SAnsiString GetLongAM(bool morning);
  // The era of the given date ("AD", "BC" in English).
  static SAnsiString GetEra(SDate const& date);
};

}  // namespace QuenLibA500
