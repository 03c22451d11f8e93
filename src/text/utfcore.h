// utfcore.h (internal): the strict Unicode transforms on raw arrays.
//
// Each routine converts a counted input into a counted output and stops at
// the first ill-formed sequence: overlong UTF-8, UTF-8 encoding a
// surrogate, values above U+10FFFF, truncated sequences, unpaired UTF-16
// surrogates and out-of-range UCS-4 values all fail. The output may hold a
// partial result after a failure, and the units past `written` (within
// cap) may be overwritten even on success; callers that promise to leave
// their target untouched convert into scratch space first.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>

#include <cstddef>
#include <cstdint>

namespace QuenLibA500::utf {

enum class Result {
  ok,
  sourceExhausted,  // the input ends inside a sequence
  targetExhausted,  // the output is too small
  sourceIllegal,    // ill-formed input
};

struct Outcome {
  Result result;
  size_t read;     // input units consumed
  size_t written;  // output units produced
};

QUENLIB_API Outcome utf8ToUtf16(unsigned char const* src, size_t n, WChar* dst, size_t cap);
QUENLIB_API Outcome utf16ToUtf8(WChar const* src, size_t n, unsigned char* dst, size_t cap);
QUENLIB_API Outcome utf8ToUtf32(unsigned char const* src, size_t n, uint32_t* dst, size_t cap);
QUENLIB_API Outcome utf32ToUtf8(uint32_t const* src, size_t n, unsigned char* dst, size_t cap);
QUENLIB_API Outcome utf16ToUtf32(WChar const* src, size_t n, uint32_t* dst, size_t cap);
QUENLIB_API Outcome utf32ToUtf16(uint32_t const* src, size_t n, WChar* dst, size_t cap);

// The instruction sets the UTF-8 / UTF-16 transforms can move ASCII with,
// slowest first. The transforms above use the best the processor has; the
// forms taking an Isa exist so that tests and fuzz targets can compare
// every set with the scalar one. A set the processor (or the build) lacks
// is replaced by the best one it has.
enum class Isa { scalar, portable, sse2, avx2 };
QUENLIB_API Isa bestIsa();
QUENLIB_API Outcome utf8ToUtf16(Isa isa, unsigned char const* src, size_t n, WChar* dst,
                                size_t cap);
QUENLIB_API Outcome utf16ToUtf8(Isa isa, WChar const* src, size_t n, unsigned char* dst,
                                size_t cap);

// True when the n bytes are well-formed UTF-8.
QUENLIB_API bool isValidUtf8(unsigned char const* src, size_t n);
// True when the n units are well-formed UTF-16 (every surrogate paired).
QUENLIB_API bool isValidUtf16(WChar const* src, size_t n);

// Units before the terminator.
QUENLIB_API size_t length(unsigned char const* s);
QUENLIB_API size_t length(WChar const* s);
QUENLIB_API size_t length(uint32_t const* s);

}  // namespace QuenLibA500::utf
