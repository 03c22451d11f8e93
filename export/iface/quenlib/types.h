// types.h: the fixed-width types the whole library speaks in.
//
// The library keeps the value ranges of its original 32-bit platform:
// `DWORD` is 32 bits, wide text is UTF-16 in `WChar` (char16_t), whatever
// the width of the C library's wchar_t.
//
//   QuenLibA500::WChar const* w = u"text";
//   QuenLibA500::DWORD n = 42;
#pragma once

#include <cstdint>

namespace QuenLibA500 {

// One UTF-16 code unit: the unit of SWCharString and SBrimString.
using WChar = char16_t;

// The original platform's unsigned 32-bit word.
using DWORD = uint32_t;

// Time-outs are milliseconds in a DWORD; this one waits without end.
inline constexpr DWORD kWaitForever = 0xFFFFFFFFu;

}  // namespace QuenLibA500
