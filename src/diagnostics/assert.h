// assert.h (internal): the library's assertion macros.
//
// QL_ASSERT(cond) reports "cond" when it is false; QL_ASSERT_MSG adds a
// message; QL_REPORT(text, msg) reports unconditionally with the given
// condition text (the form the library uses for "0" and fixed texts).
// None of them stop execution.
#pragma once

#include <quenlib/slogger.h>

#define QL_REPORT(condText, msg)                                      \
  do {                                                                \
    if (::QuenLibA500::SLogger::ShouldAssert())                       \
      ::QuenLibA500::SAssert(__FILE__, __LINE__, (condText), (msg));  \
  } while (0)

#define QL_ASSERT_MSG(cond, msg)                 \
  do {                                           \
    if (!(cond)) QL_REPORT(#cond, (msg));        \
  } while (0)

#define QL_ASSERT(cond) QL_ASSERT_MSG(cond, static_cast<char const*>(nullptr))
