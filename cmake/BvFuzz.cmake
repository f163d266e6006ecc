# bv_add_fuzz(NAME name SOURCES file... [LIBRARIES target...] [SUBJECT file...]
#   [DICTIONARY file])
#
# A fuzz target: a program around LLVMFuzzerTestOneInput(). In the fuzz build (preset `fuzz`) it is
# linked with libFuzzer; in every other build with a main of ours that replays the corpus, which
# CTest runs as an ordinary test. The corpus is corpus/<name> in the calling folder, and the dictionary
# <name>.dict, unless one is named. SUBJECT are the sources whose coverage tests/fuzz/run reports.

get_filename_component(BV_TREE "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)

option(BV_FUZZ "Build the fuzz targets with libFuzzer (needs clang)" OFF)

if(BV_FUZZ)
  # Clang puts its run-times into programs only, so here the libraries' own -z defs cannot hold.
  # These flags come last on the link line, and the last -z counts.
  set(CMAKE_C_STANDARD_LIBRARIES "${CMAKE_C_STANDARD_LIBRARIES} -Wl,-z,undefs")
  set(CMAKE_CXX_STANDARD_LIBRARIES "${CMAKE_CXX_STANDARD_LIBRARIES} -Wl,-z,undefs")
  add_custom_target(fuzzers)
endif()

function(bv_add_fuzz)
  cmake_parse_arguments(F "" "NAME;DICTIONARY" "SOURCES;LIBRARIES;SUBJECT" ${ARGN})
  set(target fuzz_${F_NAME})
  if(NOT F_LIBRARIES)
    set(F_LIBRARIES bv::bv)
  endif()
  add_executable(${target} ${F_SOURCES})
  target_include_directories(${target} PRIVATE ${BV_TREE} ${BV_TREE}/tests)
  target_compile_definitions(${target} PRIVATE BV_TEST_SOURCE_DIR="${BV_TREE}/tests")
  target_link_libraries(${target} PRIVATE ${F_LIBRARIES} Threads::Threads ${CMAKE_DL_LIBS})
  set_target_properties(${target} PROPERTIES
    LINKER_LANGUAGE CXX
    RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/fuzz"
    ENABLE_EXPORTS ON)

  if(BV_FUZZ)
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    add_dependencies(fuzzers ${target})
    if(NOT F_DICTIONARY)
      set(F_DICTIONARY ${F_NAME}.dict)
    endif()
    list(TRANSFORM F_SUBJECT PREPEND ${BV_TREE}/)
    list(JOIN F_SUBJECT " " subject)
    # Read by the scripts in tests/fuzz.
    file(WRITE "${PROJECT_BINARY_DIR}/fuzz/${F_NAME}.about"
      "corpus='${CMAKE_CURRENT_SOURCE_DIR}/corpus/${F_NAME}'\n"
      "dictionary='${CMAKE_CURRENT_SOURCE_DIR}/${F_DICTIONARY}'\n"
      "subject='${subject}'\n")
  else()
    if(NOT TARGET fuzz_replay)
      add_library(fuzz_replay OBJECT EXCLUDE_FROM_ALL ${BV_TREE}/tests/fuzz/replay.cpp)
      target_include_directories(fuzz_replay PRIVATE ${BV_TREE} ${BV_TREE}/tests)
      target_compile_options(fuzz_replay PRIVATE ${BV_TEST_OPTIONS})
    endif()
    target_sources(${target} PRIVATE $<TARGET_OBJECTS:fuzz_replay>)
    target_compile_options(${target} PRIVATE ${BV_TEST_OPTIONS})
    add_test(NAME fuzz.${F_NAME}_corpus_passes
      COMMAND ${BV_TEST_ROOT} $<TARGET_FILE:${target}> ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${F_NAME})
    set_tests_properties(fuzz.${F_NAME}_corpus_passes PROPERTIES TIMEOUT 120 LABELS "fuzz;${BV_TEST_LABELS}")
  endif()
endfunction()
