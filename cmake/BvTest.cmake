# SPDX-License-Identifier: ISC
# bv_add_test(NAME name SOURCES file... [INTERPOSES heap|libc...] [LIBRARIES target...]
#             [DEFINITIONS def...] [LABELS label...] [NETWORK])
#
# A GoogleTest program with the test kit of tests/support. Every TEST becomes a CTest entry and runs
# in a process and a private root of its own, so that each finds the fixed paths empty and leaves
# nothing behind. INTERPOSES: puts the program in front of malloc() and its kind, or of all other
# calls of the library that can fail (tests/support/faults.h). NETWORK: uses fixed ports, so it does
# not run beside another such program (a private root without namespaces shares them).
# A folder may give all of its tests labels in BV_TEST_LABELS.

include(GoogleTest)
find_package(GTest REQUIRED)

# Where the kit is; compat/ uses it as a project of its own.
get_filename_component(BV_TREE "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)

set(BV_TEST_FOLDERS abi package os debug core db bus dev crypto service examples tools docs bench compat fuzz sweep stack soak CACHE STRING
  "Folders of tests to build")

execute_process(COMMAND "${BV_TREE}/tests/support/root-way"
  RESULT_VARIABLE no_root OUTPUT_QUIET ERROR_VARIABLE words OUTPUT_STRIP_TRAILING_WHITESPACE)
if(no_root)
  message(FATAL_ERROR "${words}(-DBV_TESTS=OFF builds without the tests)")
endif()
set(BV_TEST_ROOT "${BV_TREE}/tests/support/root")
if(BV_TEST_USERLAND) # of a cross build: what fills the root instead of this machine's programs
  list(APPEND BV_TEST_ROOT --userland "${BV_TEST_USERLAND}")
endif()

# Libraries and the daemon may lie in a prefix of their own: the private root has to show it.
set(prefixes "")
foreach(target bv::boundscheck bv::ubox bv::ubus)
  if(TARGET ${target}) # otherwise a stand-in
    get_target_property(file ${target} IMPORTED_LOCATION)
    list(APPEND prefixes "${file}")
  endif()
endforeach()
foreach(library IN LISTS BV_JSONC_LINK_LIBRARIES OPENSSL_CRYPTO_LIBRARY)
  list(APPEND prefixes "${library}")
endforeach()
if(NOT TARGET bv_ubusd)
  list(APPEND prefixes "${BV_UBUSD}")
endif()
list(TRANSFORM prefixes REPLACE "/s?bin/[^/]*$|/lib(64|/[^/]*-linux-[^/]*)?/[^/]*$" "")
list(FILTER prefixes INCLUDE REGEX "^/")
list(FILTER prefixes EXCLUDE REGEX "^/usr(/|$)|^/lib(/|$)")
list(REMOVE_DUPLICATES prefixes)
if(CMAKE_CROSSCOMPILING) # the target's root has them
  set(prefixes "")
endif()
list(JOIN prefixes "\n" lines)
file(WRITE "${PROJECT_BINARY_DIR}/prefixes" "${lines}\n")

# What ThreadSanitizer is for: the programs with the label `threaded`.
add_custom_target(threaded_tests)

if(BV_SANITIZED)
  set(BV_TEST_ENVIRONMENT ENVIRONMENT "LSAN_OPTIONS=suppressions=${BV_TREE}/tests/sanitize/leaks.supp:print_suppressions=0")
endif()

# What nearly every test includes is compiled once for all of them. Compiler caches cannot keep what
# was compiled with such a header, so with one of them it is left out.
if(CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)
endif()
add_library(test_headers OBJECT ${BV_TREE}/tests/support/headers.cpp)
target_precompile_headers(test_headers PRIVATE <gtest/gtest.h> <algorithm> <atomic> <cerrno> <chrono>
  <climits> <csignal> <cstdint> <cstdio> <cstdlib> <cstring> <fstream> <functional> <memory> <mutex>
  <string> <thread> <vector>)
target_link_libraries(test_headers PRIVATE GTest::gtest Threads::Threads)

# Tests run once: optimising them takes far longer than it can save. The library under test keeps
# the build type's flags. Position-independent as for a program, so that the headers fit programs.
set(BV_TEST_OPTIONS $<$<COMPILE_LANGUAGE:CXX>:-O0>)
target_compile_options(test_headers PRIVATE ${BV_TEST_OPTIONS} -fPIE)
set_target_properties(test_headers PROPERTIES POSITION_INDEPENDENT_CODE OFF)

# The test kit: tests take from it what they use. What interposes is linked whole, where it is named.
function(bv_test_kit target kind)
  list(TRANSFORM ARGN PREPEND ${BV_TREE}/tests/support/)
  add_library(${target} ${kind} EXCLUDE_FROM_ALL ${ARGN})
  target_include_directories(${target} PRIVATE ${BV_TREE} ${BV_TREE}/tests)
  target_compile_definitions(${target} PRIVATE BV_UBUSD="${BV_UBUSD}")
  target_compile_options(${target} PRIVATE ${BV_TEST_OPTIONS})
endfunction()
list(TRANSFORM BV_COMPAT_BUILT REPLACE "(.+)" "\"lib\\1.so\"" OUTPUT_VARIABLE stand_ins)
list(JOIN stand_ins ", " stand_ins)
set_source_files_properties(${BV_TREE}/tests/support/faults.cpp PROPERTIES
  COMPILE_DEFINITIONS "BV_STAND_INS=${stand_ins}")
bv_test_kit(test_kit STATIC bus.cpp child.cpp faults.cpp wire.cpp)
bv_test_kit(interposed_heap OBJECT heap.cpp)
bv_test_kit(interposed_libc OBJECT libc.cpp)

function(bv_add_test)
  cmake_parse_arguments(T "NETWORK" "NAME" "SOURCES;INTERPOSES;LIBRARIES;DEFINITIONS;LABELS" ${ARGN})
  if(NOT T_LIBRARIES)
    set(T_LIBRARIES bv::bv)
  endif()
  set(objects ${T_INTERPOSES})
  list(TRANSFORM objects PREPEND interposed_)
  set(targets ${T_NAME})
  # C is compiled apart: the precompiled headers are C++.
  set(c_sources ${T_SOURCES})
  list(FILTER c_sources INCLUDE REGEX "\\.c$")
  list(FILTER T_SOURCES EXCLUDE REGEX "\\.c$")
  if(c_sources)
    add_library(${T_NAME}_c OBJECT EXCLUDE_FROM_ALL ${c_sources})
    list(APPEND objects ${T_NAME}_c)
    list(APPEND targets ${T_NAME}_c)
  endif()
  list(TRANSFORM objects REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>")
  add_executable(${T_NAME} ${T_SOURCES} ${objects})
  foreach(target IN LISTS targets)
    target_include_directories(${target} PRIVATE ${BV_TREE} ${BV_TREE}/tests)
    target_compile_definitions(${target} PRIVATE
      BV_TEST_SOURCE_DIR="${BV_TREE}/tests"
      BV_UBUSD="${BV_UBUSD}"
      ${T_DEFINITIONS})
    # The macros of the test framework compare and convert in ways that -Wconversion dislikes.
    target_compile_options(${target} PRIVATE ${BV_TEST_OPTIONS}
      $<$<COMPILE_LANGUAGE:CXX>:-Wno-conversion -Wno-sign-conversion>)
    target_link_libraries(${target} PRIVATE ${T_LIBRARIES})
  endforeach()
  # The C++ files of a program are compiled as one, which is far quicker. GCC has a warning for
  # fixtures in the unnamed namespace of an included file.
  if(NOT CMAKE_DISABLE_PRECOMPILE_HEADERS)
    target_precompile_headers(${T_NAME} REUSE_FROM test_headers)
    set_target_properties(${T_NAME} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
    target_compile_options(${T_NAME} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  endif()
  target_link_libraries(${T_NAME} PRIVATE test_kit ${T_LIBRARIES} GTest::gtest GTest::gtest_main
    Threads::Threads ${BV_LIBC_PARTS} ${CMAKE_DL_LIBS})
  set_target_properties(${T_NAME} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tests"
    CROSSCOMPILING_EMULATOR "${BV_TEST_ROOT}"
    ENABLE_EXPORTS ON
    DEFINE_SYMBOL "") # a definition for each program would spoil the precompiled header
  if(TARGET bv_ubusd)
    add_dependencies(${T_NAME} bv_ubusd)
  endif()
  if("threaded" IN_LIST T_LABELS)
    add_dependencies(threaded_tests ${T_NAME})
  endif()
  # Discovery cannot pass a list on, and `ctest -L` matches a part of a label too.
  list(APPEND T_LABELS ${BV_TEST_LABELS})
  list(JOIN T_LABELS "-" labels)
  set(lock "")
  if(T_NETWORK)
    set(lock RESOURCE_LOCK network)
  endif()
  gtest_discover_tests(${T_NAME}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 300 ${BV_TEST_ENVIRONMENT} ${lock} LABELS "${labels}")
endfunction()
