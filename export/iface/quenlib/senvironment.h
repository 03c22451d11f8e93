// senvironment.h: the process environment, and "%NAME%" expansion.
//
// `SEnvironment` reads and changes the variables of this process (children
// started later inherit them) and expands "%NAME%" references in a text:
//
//   QuenLibA500::SEnvironment::set("APP_HOME", "/opt/app");
//   SAnsiString conf = QuenLibA500::SEnvironment::expand("%APP_HOME%/conf");
//   // "/opt/app/conf"
//   SAnsiString home;
//   if (!QuenLibA500::SEnvironment::get("HOME", home)) home = "/";
//
// Expansion replaces "%NAME%" by the variable's value when NAME is set
// (names are case-sensitive, as the environment's are on Linux). A
// reference to an unset name stays as written and the scan goes on from its
// closing "%", which may open the next reference ("%NOPE%HOME%" gives
// "%NOPE" and the value of HOME). A "%" without a closing one stays, and
// "%%" stays "%%". The registry's expand-string values are expanded by this
// same function.
//
// The functions of this class serialise among themselves; other threads
// calling setenv or putenv directly at the same time are not covered (the C
// library's environment is not thread-safe).
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

namespace QuenLibA500 {

class QUENLIB_API SEnvironment {
 public:
  SEnvironment() = delete;

  // True and the value when the variable is set (perhaps to "").
  static bool get(char const* name, SAnsiString& value);
  // False for an empty name or one containing "=".
  static bool set(char const* name, char const* value);
  // True when the variable is absent afterwards; false for a bad name.
  static bool unset(char const* name);
  static SAnsiString expand(char const* text);
};

}  // namespace QuenLibA500
