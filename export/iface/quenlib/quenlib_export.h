// quenlib_export.h: symbol visibility for the quenlib shared library.
//
// The library is built with hidden visibility; every public class and free
// function is marked QUENLIB_API so that it is exported from
// libquenlib-5-0.so and imported by callers.
#pragma once

#if defined(QUENLIB_BUILDING_LIBRARY)
#define QUENLIB_API __attribute__((visibility("default")))
#else
#define QUENLIB_API __attribute__((visibility("default")))
#endif

// Explicit template instantiations that live in the library are declared
// with this in headers so that callers do not instantiate them again.
#define QUENLIB_EXTERN_TEMPLATE extern template class QUENLIB_API
