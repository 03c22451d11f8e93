// icutext.h (internal): ICU's UTF-16 text in the code set of the thread's
// current locale, "?" for what that code set cannot show.
#pragma once

#include <quenlib/sstring.h>

#include <cstdint>

namespace QuenLibA500::icutext {

SAnsiString ToLocaleText(char16_t const* text, int32_t length);

}  // namespace QuenLibA500::icutext
