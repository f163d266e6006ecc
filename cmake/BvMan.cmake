# SPDX-License-Identifier: ISC
# The man pages, which scripts/man-pages makes from docs/man, docs/formats.md and the public headers.
find_program(BV_AWK awk NO_CMAKE_FIND_ROOT_PATH)
mark_as_advanced(BV_AWK)
if(NOT BV_AWK)
  message(STATUS "man pages: none, awk is missing")
  return()
endif()

set(man "${PROJECT_BINARY_DIR}/man")
file(GLOB sources CONFIGURE_DEPENDS docs/man/* include/bv/*.h scripts/*.awk)
add_custom_command(OUTPUT "${man}/man3/libbv.3"
  COMMAND "${PROJECT_SOURCE_DIR}/scripts/man-pages" "${man}"
  DEPENDS ${sources} docs/formats.md CHANGELOG.md scripts/man-pages scripts/version
  COMMENT "Making the man pages" VERBATIM)
add_custom_target(bv_man ALL DEPENDS "${man}/man3/libbv.3")

if(BV_TOOLS)
  install(DIRECTORY "${man}/man1" DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT tools)
endif()
if(TARGET bv_ubusd)
  install(DIRECTORY "${man}/man8" DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT compat)
endif()
install(DIRECTORY "${man}/man3" "${man}/man5" DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)
