# Fails when a source of a lower subsystem includes a header of a higher one.
#   cmake -DSOURCE_ROOT=<tree> -P cmake/CheckLayers.cmake
#
# The order is the build order of docs/architecture.md. A public header
# belongs to the subsystem whose folder holds the source of the same name;
# the headers without such a source are listed in HEADER_HOME.

set(LAYERS text concurrency diagnostics time web files system config
           security resources net process server)

# Headers that have no source named after them.
set(HEADER_HOME
  types=text quenlib_export=text refcount=text sinterlocked=text siarray=text
  codesetconverter=text version=system simap=web sdatetime=time
  sdatetimestring=time logplugin=diagnostics)

# The one channel for assertions and traces sits beside text: every
# subsystem, text included, reports through it. The trace text stamps
# dates, so diagnostics may read time.
set(ALLOWED
  "text:diagnostics/assert.h" "text:diagnostics/trace.h"
  "text:quenlib/slogger.h" "text:quenlib/strace.h"
  "concurrency:diagnostics/assert.h" "concurrency:diagnostics/trace.h"
  "concurrency:quenlib/slogger.h" "concurrency:quenlib/strace.h"
  "diagnostics:quenlib/sdatetime.h")

function(layer_of name out)
  list(FIND LAYERS "${name}" idx)
  set(${out} ${idx} PARENT_SCOPE)
endfunction()

# Subsystem of a public header, by the source named after it.
function(home_of_public header out)
  get_filename_component(base ${header} NAME_WE)
  foreach(pair ${HEADER_HOME})
    if(pair MATCHES "^${base}=(.*)$")
      set(${out} ${CMAKE_MATCH_1} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  file(GLOB hits "${SOURCE_ROOT}/src/*/${base}.cpp" "${SOURCE_ROOT}/src/*/${base}_*.cpp")
  if(hits)
    list(GET hits 0 hit)
    get_filename_component(dir ${hit} DIRECTORY)
    get_filename_component(sub ${dir} NAME)
    set(${out} ${sub} PARENT_SCOPE)
    return()
  endif()
  set(${out} "" PARENT_SCOPE)
endfunction()

set(failures "")
file(GLOB files "${SOURCE_ROOT}/src/*/*.cpp" "${SOURCE_ROOT}/src/*/*.h")
foreach(f ${files})
  get_filename_component(dir ${f} DIRECTORY)
  get_filename_component(sub ${dir} NAME)
  layer_of(${sub} mine)
  if(mine EQUAL -1)
    string(APPEND failures "${f}: folder '${sub}' is not a subsystem\n")
    continue()
  endif()
  file(STRINGS ${f} lines REGEX "^#include [<\"][a-z]+/[A-Za-z0-9_]+\\.h[>\"]")
  foreach(line ${lines})
    string(REGEX REPLACE "^#include [<\"]([a-z]+/[A-Za-z0-9_]+\\.h)[>\"].*$" "\\1" inc "${line}")
    string(REGEX REPLACE "/.*$" "" top "${inc}")
    if(top STREQUAL "quenlib" OR top STREQUAL "registrykeys")
      if(inc STREQUAL "quenlib/quenlib.h")
        string(APPEND failures "${f}: the umbrella header is for users, not for the library\n")
        continue()
      endif()
      home_of_public(${inc} home)
      if(home STREQUAL "")
        string(APPEND failures "${f}: ${inc} has no source named after it; add it to HEADER_HOME\n")
        continue()
      endif()
    else()
      set(home ${top})
    endif()
    layer_of(${home} theirs)
    if(theirs EQUAL -1)
      continue()  # a system or third-party header such as <unicode/ucnv.h>
    endif()
    list(FIND ALLOWED "${sub}:${inc}" allowed)
    if(theirs GREATER mine AND allowed EQUAL -1)
      string(APPEND failures "${f}: ${sub} includes ${inc} of the higher subsystem ${home}\n")
    endif()
  endforeach()
endforeach()

if(failures)
  message(FATAL_ERROR "layering broken:\n${failures}")
endif()
message(STATUS "layers: every include goes downwards")
