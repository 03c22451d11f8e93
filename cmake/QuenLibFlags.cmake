# Warning and sanitizer flags shared by every target of the project.
add_library(quenlib_flags INTERFACE)
target_compile_options(quenlib_flags INTERFACE -Wall -Wextra)
if(QUENLIB_WERROR)
  target_compile_options(quenlib_flags INTERFACE -Werror)
endif()

set(QUENLIB_SANITIZER_FLAGS "")
if(QUENLIB_TSAN)
  set(QUENLIB_SANITIZER_FLAGS -fsanitize=thread)
  # GCC warns that ThreadSanitizer does not model standalone fences; the
  # seqlocks that use them keep every shared field atomic, so the warning
  # carries no information here.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(quenlib_flags INTERFACE -Wno-tsan)
  endif()
elseif(QUENLIB_SANITIZE)
  set(QUENLIB_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined)
endif()
if(QUENLIB_SANITIZER_FLAGS)
  # Applied globally so that tests, tools and the library agree on the runtime.
  add_compile_options(${QUENLIB_SANITIZER_FLAGS} -fno-omit-frame-pointer)
  add_link_options(${QUENLIB_SANITIZER_FLAGS})
endif()
string(REPLACE ";" " " QUENLIB_SANITIZER_FLAGS_STRING "${QUENLIB_SANITIZER_FLAGS}")

if(QUENLIB_BUILD_FUZZ)
  # Coverage instrumentation for the library itself; the fuzz targets add
  # the libFuzzer driver.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
