# SPDX-License-Identifier: ISC
# The libraries underneath: json-c and libcrypto are always the installed ones; boundscheck, ubox
# and ubus may come from compat/. Afterwards the targets json-c::json-c, OpenSSL::Crypto,
# boundscheck::boundscheck, ubox::ubox and ubus::ubus exist, BV_UBUSD is the bus daemon's path, and
# BV_COMPAT_BUILT lists the stand-ins that this tree builds.

find_package(PkgConfig REQUIRED)
pkg_check_modules(JSONC REQUIRED IMPORTED_TARGET json-c)
add_library(json-c::json-c ALIAS PkgConfig::JSONC)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(Threads REQUIRED)

set(BV_COMPAT_BUILT "")

# bv_is_left_over(RESULT LIBRARY NAME): whether a library is a stand-in that an earlier install of this
# tree left, and CMAKE_PREFIX_PATH does not ask for it.
function(bv_is_left_over result library name)
  set(${result} FALSE PARENT_SCOPE)
  get_filename_component(folder "${library}" DIRECTORY)
  foreach(prefix IN LISTS CMAKE_PREFIX_PATH)
    cmake_path(IS_PREFIX prefix "${folder}" NORMALIZE asked_for)
    if(asked_for)
      return()
    endif()
  endforeach()
  if(EXISTS "${folder}/bv/stand-ins")
    file(STRINGS "${folder}/bv/stand-ins" installed)
    if(name IN_LIST installed)
      set(${result} TRUE PARENT_SCOPE)
    endif()
  endif()
endfunction()

# bv_underneath(NAME HEADER): an imported target for an installed library, or the stand-in.
function(bv_underneath name header)
  string(TOUPPER ${name} upper)
  set(found FALSE)
  if(NOT BV_COMPAT STREQUAL "ON")
    # Looked for every time: what was there may be gone.
    find_path(BV_${upper}_INCLUDE ${header} NO_CACHE)
    find_library(BV_${upper}_LIBRARY ${name} NO_CACHE)
    bv_is_left_over(left_over "${BV_${upper}_LIBRARY}" ${name})
    if(BV_${upper}_INCLUDE AND BV_${upper}_LIBRARY
       AND NOT (left_over AND BV_COMPAT STREQUAL "AUTO"))
      set(found TRUE)
    endif()
  endif()

  if(found)
    add_library(${name}::${name} UNKNOWN IMPORTED GLOBAL)
    set_target_properties(${name}::${name} PROPERTIES
      IMPORTED_LOCATION "${BV_${upper}_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${BV_${upper}_INCLUDE}")
    message(STATUS "${name}: installed (${BV_${upper}_LIBRARY})")
  elseif(BV_COMPAT STREQUAL "OFF")
    message(FATAL_ERROR
      "${name}: header ${header} or library ${name} not found, and BV_COMPAT=OFF forbids the stand-in")
  else()
    set(BV_COMPAT_BUILT ${BV_COMPAT_BUILT} ${name} PARENT_SCOPE)
    message(STATUS "${name}: stand-in from compat/${name}")
  endif()
endfunction()

bv_underneath(boundscheck securec.h)
bv_underneath(ubox libubox/uloop.h)
bv_underneath(ubus libubus.h)

if("ubus" IN_LIST BV_COMPAT_BUILT)
  set(BV_UBUSD "$<TARGET_FILE:ubusd>")
else()
  find_program(BV_UBUSD_PROGRAM ubusd PATHS /usr/sbin /sbin NO_CACHE)
  set(BV_UBUSD "${BV_UBUSD_PROGRAM}")
endif()
if(NOT "ubox" IN_LIST BV_COMPAT_BUILT AND TARGET ubox::ubox AND TARGET ubus::ubus
   AND NOT "ubus" IN_LIST BV_COMPAT_BUILT)
  set_property(TARGET ubus::ubus APPEND PROPERTY INTERFACE_LINK_LIBRARIES ubox::ubox)
endif()
