# SPDX-License-Identifier: ISC
# What `cmake --install` puts where: the library with its headers, bv.pc, a CMake package, man pages
# and the pages of docs/; tools/ and examples/ add theirs. Stand-ins that were built go beside the
# library and are found through a run path of $ORIGIN, so that a prefix works wherever it is unpacked.

include(CMakePackageConfigHelpers)

# The defines that the public headers need from every caller, in one place for both packages.
set(BV_CALLER_DEFINES -D_GNU_SOURCE -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64)

install(TARGETS bv LIBRARY
  DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT development)
install(DIRECTORY include/bv DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h")
include(BvMan)
install(FILES README.md CHANGELOG.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
# The other pages are for those who work on the library.
foreach(page IN ITEMS formats guide porting status surprises threads)
  install(FILES docs/${page}.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT development)
endforeach()

if(BV_COMPAT_BUILT)
  install(TARGETS ${BV_COMPAT_BUILT} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  foreach(name IN LISTS BV_COMPAT_BUILT)
    install(DIRECTORY compat/${name}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
      COMPONENT development FILES_MATCHING PATTERN "*.h")
  endforeach()
  set_property(TARGET bv ${BV_COMPAT_BUILT} PROPERTY INSTALL_RPATH "$ORIGIN")
  # By this file cmake/BvCompat.cmake tells them from the platform's own.
  list(JOIN BV_COMPAT_BUILT "\n" names)
  file(WRITE "${CMAKE_BINARY_DIR}/packaging/stand-ins" "${names}\n")
  install(FILES "${CMAKE_BINARY_DIR}/packaging/stand-ins"
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/bv COMPONENT development)
endif()
if(TARGET ubusd)
  file(RELATIVE_PATH libraries "/${CMAKE_INSTALL_SBINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
  set_property(TARGET ubusd PROPERTY INSTALL_RPATH "$ORIGIN/${libraries}")
  install(TARGETS ubusd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()

string(REPLACE ";" " " BV_PC_DEFINES "${BV_CALLER_DEFINES}")
# From the folder of bv.pc back to the prefix, however deep the library folder is.
file(RELATIVE_PATH BV_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(packaging/bv.pc.in "${CMAKE_BINARY_DIR}/packaging/bv.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/packaging/bv.pc"
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/bv)
configure_package_config_file(packaging/bvConfig.cmake.in
  "${CMAKE_BINARY_DIR}/packaging/bvConfig.cmake"
  INSTALL_DESTINATION ${package_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file("${CMAKE_BINARY_DIR}/packaging/bvConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${CMAKE_BINARY_DIR}/packaging/bvConfig.cmake" "${CMAKE_BINARY_DIR}/packaging/bvConfigVersion.cmake"
  DESTINATION ${package_dir} COMPONENT development)
