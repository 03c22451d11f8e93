// localeconv.h (internal): the process locale's multibyte text to and from
// UTF-16, with the library's "?" rules, for the converters and the string
// conversion members.
//
// The C library converts through its 32-bit wchar_t. When the locale's
// code set is UTF-8 and the input is well-formed, the library's own strict
// transforms give the same result much faster, so they are used instead.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>

#include <cerrno>
#include <cstddef>
#include <string>

namespace QuenLibA500::localeconv {

// Keeps the caller's errno across a conversion.
class ErrnoGuard {
 public:
  ErrnoGuard() : saved_(errno) {}
  ~ErrnoGuard() { errno = saved_; }
  ErrnoGuard(ErrnoGuard const&) = delete;
  ErrnoGuard& operator=(ErrnoGuard const&) = delete;

 private:
  int saved_;
};

// Bytes before the first zero byte among the first n ((size_t)-1: strlen).
QUENLIB_API size_t boundedLength(char const* s, size_t n);

// True when the current locale's multibyte code set is UTF-8.
QUENLIB_API bool isUtf8Locale();

// n bytes of locale text (stopping early at a zero byte) to UTF-16; every
// invalid byte becomes one "?" unit.
QUENLIB_API std::u16string toUtf16(char const* in, size_t n);
// n UTF-16 units (stopping early at a zero unit) to locale text; every
// character that cannot be represented, unpaired surrogates included,
// becomes one "?" byte.
QUENLIB_API std::string fromUtf16(WChar const* in, size_t n);

}  // namespace QuenLibA500::localeconv
