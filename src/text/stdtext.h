// stdtext.h (internal): the library's strings and the standard ones, and
// the system's text for an errno value; shared so that each source does not
// carry its own copy.
#pragma once

#include <quenlib/sstring.h>

#include <string>
#include <string_view>
#include <system_error>

namespace QuenLibA500::stdtext {

inline std::string_view view(SAnsiString const& s) { return {s.getString(), s.getLength()}; }
inline std::string str(SAnsiString const& s) { return std::string(view(s)); }
inline SAnsiString ansi(std::string_view s) { return SAnsiString(s.data(), static_cast<unsigned>(s.size())); }
// "No such file or directory" for ENOENT, as strerror gives it.
inline std::string errnoText(int err) { return std::system_category().message(err); }

}  // namespace QuenLibA500::stdtext
