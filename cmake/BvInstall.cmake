# SPDX-License-Identifier: ISC
# What `cmake --install` puts where: the library with its headers, bv.pc, a CMake package, man pages
# and the pages of docs/; tools/ and examples/ add theirs.
#
# Stand-ins go into folders of their own, so that they never meet a platform's libraries of the same
# names: LIBDIR/bv, which libbv finds through a run path, and INCLUDEDIR/bv-compat. A prefix works
# wherever it is unpacked.

include(CMakePackageConfigHelpers)

set(private ${CMAKE_INSTALL_LIBDIR}/bv)
set(development COMPONENT development)

install(TARGETS bv
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} ${development})
install(DIRECTORY include/bv DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${development}
  FILES_MATCHING PATTERN "*.h")
if(BV_SERVICE)
  install(TARGETS bvservice
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} ${development})
  # It finds libbv beside it, in a prefix that the loader does not know.
  set(run_path "")
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    list(APPEND run_path "$ORIGIN")
  endif()
  if("ubox" IN_LIST BV_COMPAT_BUILT OR "ubus" IN_LIST BV_COMPAT_BUILT)
    list(APPEND run_path "$ORIGIN/bv")
  endif()
  set_property(TARGET bvservice PROPERTY INSTALL_RPATH "${run_path}")
endif()
include(BvMan)
install(FILES README.md CHANGELOG.md SECURITY.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} ${development})
# The pages left out are for those who work on the library.
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} ${development}
  FILES_MATCHING PATTERN "*.md" PATTERN "man" EXCLUDE
  REGEX "/docs/(benchmarks|design|fuzzing|target)" EXCLUDE)

foreach(name IN LISTS BV_COMPAT_BUILT)
  install(TARGETS bv_${name} LIBRARY DESTINATION ${private} COMPONENT compat
    ARCHIVE DESTINATION ${private} ${development})
  install(DIRECTORY compat/${name}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/bv-compat
    ${development} FILES_MATCHING PATTERN "*.h")
  set_property(TARGET bv_${name} PROPERTY INSTALL_RPATH "$ORIGIN")
  set_property(TARGET bv PROPERTY INSTALL_RPATH "$ORIGIN/bv")
endforeach()
if(TARGET bv_ubusd)
  # The daemon can be started by a name that a platform's does not have.
  set_property(TARGET bv_ubusd PROPERTY INSTALL_RPATH "$ORIGIN")
  install(TARGETS bv_ubusd RUNTIME DESTINATION ${private} COMPONENT compat)
  file(RELATIVE_PATH daemon "/${CMAKE_INSTALL_SBINDIR}" "/${private}/ubusd")
  set(link "${PROJECT_BINARY_DIR}/packaging/bv-ubusd")
  file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/packaging")
  file(CREATE_LINK "${daemon}" "${link}" SYMBOLIC)
  install(FILES "${link}" DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT compat)
endif()

# What a service needs to compile and link: the include folders, the bus libraries, and where the
# loader finds stand-ins of them. What only libbv needs the linker looks for, too.
set(BV_RUN_PATH "-rpath-link")
if("ubox" IN_LIST BV_COMPAT_BUILT OR "ubus" IN_LIST BV_COMPAT_BUILT)
  set(BV_RUN_PATH "-rpath")
endif()
set(BV_PC_INCLUDE "-I\${includedir}")
set(BV_PC_LIBRARIES "-L\${libdir} -lbv")
if(BV_RUN_PATH STREQUAL "-rpath")
  string(APPEND BV_PC_INCLUDE " -I\${includedir}/bv-compat")
endif()
if(BV_COMPAT_BUILT)
  string(APPEND BV_PC_LIBRARIES " -L\${libdir}/bv")
endif()
if(BV_COMPAT_BUILT AND BUILD_SHARED_LIBS)
  string(APPEND BV_PC_LIBRARIES " -Wl,${BV_RUN_PATH},\${libdir}/bv")
  if(BV_RUN_PATH STREQUAL "-rpath") # where there is no folder pkgconfig, ${libdir} leads nowhere
    string(APPEND BV_PC_LIBRARIES " -Wl,-rpath,${CMAKE_INSTALL_FULL_LIBDIR}/bv")
  endif()
endif()
string(APPEND BV_PC_LIBRARIES " -lubus -lubox")
list(JOIN BV_LIBC_PARTS " " libc_parts)
set(BV_PC_PRIVATE "-lboundscheck -lcrypto ${libc_parts}")
set(BV_LIBRARY_SUFFIX "${CMAKE_SHARED_LIBRARY_SUFFIX}")
set(BV_LIBRARY_KIND SHARED)
set(BV_SERVICE_VERSION ".${PROJECT_VERSION}")
if(NOT BUILD_SHARED_LIBS) # there is no shared library that would bring them
  string(APPEND BV_PC_LIBRARIES " ${BV_PC_PRIVATE}")
  set(BV_PC_PRIVATE "")
  set(BV_LIBRARY_SUFFIX "${CMAKE_STATIC_LIBRARY_SUFFIX}")
  set(BV_LIBRARY_KIND STATIC)
  set(BV_SERVICE_VERSION "")
endif()
set(BV_PC_DEFINITIONS "")
foreach(definition IN LISTS BV_CALLER_DEFINITIONS)
  string(APPEND BV_PC_DEFINITIONS " -D${definition}")
endforeach()
# From the folder of bv.pc back to the prefix, however deep the library folder is.
file(RELATIVE_PATH BV_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" BV_PC_TO_PREFIX "${BV_PC_TO_PREFIX}")
configure_file(packaging/bv.pc.in "${PROJECT_BINARY_DIR}/packaging/bv.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/packaging/bv.pc"
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig ${development})
if(BV_SERVICE)
  configure_file(packaging/bv-service.pc.in "${PROJECT_BINARY_DIR}/packaging/bv-service.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/packaging/bv-service.pc"
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig ${development})
endif()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/bv)
configure_package_config_file(packaging/bvConfig.cmake.in
  "${PROJECT_BINARY_DIR}/packaging/bvConfig.cmake"
  INSTALL_DESTINATION ${package_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/packaging/bvConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/packaging/bvConfig.cmake" "${PROJECT_BINARY_DIR}/packaging/bvConfigVersion.cmake"
  DESTINATION ${package_dir} ${development})

if(BV_TOP_LEVEL)
  add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -P "${PROJECT_SOURCE_DIR}/cmake/uninstall.cmake"
    WORKING_DIRECTORY "${PROJECT_BINARY_DIR}" VERBATIM)
endif()
