# Installs the built library into WORK_DIR/prefix, then builds and runs the
# consumer with pkg-config and with find_package(QuenLib CONFIG).
#
# With PLAIN_SOURCE set, the library is first configured and built the way a
# packager does it (a Release build with no options at all), so the check
# proves that a default install links no sanitizer runtime: a consumer built
# without sanitizers would abort at start if it did.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUT "${out}" PARENT_SCOPE)
endfunction()

if(PLAIN_SOURCE)
  set(BUILD_DIR ${WORK_DIR}/build)
  run(${CMAKE_COMMAND} -S ${PLAIN_SOURCE} -B ${BUILD_DIR} -DCMAKE_BUILD_TYPE=Release)
  run(${CMAKE_COMMAND} --build ${BUILD_DIR} -j2)
endif()
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
file(GLOB_RECURSE pcfile ${prefix}/*/quenlib-5-0.pc)
if(NOT pcfile)
  message(FATAL_ERROR "quenlib-5-0.pc was not installed")
endif()
get_filename_component(pcdir ${pcfile} DIRECTORY)
get_filename_component(libdir ${pcdir} DIRECTORY)

# pkg-config, exactly as a user would type it.
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcdir}
  sh -c "${CXX} -std=c++20 ${SOURCE_DIR}/consumer.cpp $(pkg-config --cflags --libs quenlib-5-0) ${EXTRA_FLAGS} -o ${WORK_DIR}/consumer-pc")
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir} ${WORK_DIR}/consumer-pc)
message(STATUS "pkg-config: ${LAST_OUT}")

# find_package(QuenLib CONFIG).
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX} "-DEXTRA_FLAGS=${EXTRA_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir} ${WORK_DIR}/cmake-build/consumer)
message(STATUS "find_package: ${LAST_OUT}")
