# SPDX-License-Identifier: ISC
# The libraries underneath: json-c and libcrypto are always the installed ones; boundscheck, ubox
# and ubus may come from compat/. Afterwards the targets PkgConfig::BV_JSONC, bv_libcrypto,
# bv::boundscheck, bv::ubox and bv::ubus exist, BV_UBUSD is the bus daemon's path,
# BV_COMPAT_BUILT lists the stand-ins that this tree builds, and BV_CALLER_DEFINITIONS what callers
# must define before the public headers.

# Targets that a static library passes on must be known to the whole of a surrounding project.
find_package(PkgConfig REQUIRED)
pkg_check_modules(BV_JSONC REQUIRED IMPORTED_TARGET GLOBAL json-c)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
add_library(bv_libcrypto INTERFACE)
target_include_directories(bv_libcrypto SYSTEM INTERFACE ${OPENSSL_INCLUDE_DIR})
target_link_libraries(bv_libcrypto INTERFACE ${OPENSSL_CRYPTO_LIBRARY})
set(THREADS_PREFER_PTHREAD_FLAG OFF)
find_package(Threads REQUIRED)
# Old C libraries have the timers apart.
include(CheckFunctionExists)
check_function_exists(timer_settime BV_TIMERS_IN_LIBC)
set(BV_LIBC_PARTS ${CMAKE_THREAD_LIBS_INIT})
if(NOT BV_TIMERS_IN_LIBC)
  list(APPEND BV_LIBC_PARTS -lrt)
endif()

set(BV_COMPAT_BUILT "")
string(REPLACE "," ";" BV_COMPAT_WANTED "${BV_COMPAT}")
foreach(name IN LISTS BV_COMPAT_WANTED)
  if(NOT name MATCHES "^(AUTO|ON|OFF|boundscheck|ubox|ubus)$")
    message(FATAL_ERROR "BV_COMPAT=${BV_COMPAT}: it is AUTO, ON, OFF, or a list of boundscheck, ubox and ubus")
  endif()
endforeach()

# bv_underneath(NAME HEADER): an imported target for an installed library, or the stand-in.
function(bv_underneath name header)
  string(TOUPPER ${name} upper)
  set(include BV_${upper}_INCLUDE)
  set(library BV_${upper}_LIBRARY)
  if(BV_COMPAT STREQUAL "ON" OR name IN_LIST BV_COMPAT_WANTED)
    set(${library} "")
  else()
    # Looked for every time: what was there may be gone.
    unset(${include} CACHE)
    unset(${library} CACHE)
    find_path(${include} ${header})
    find_library(${library} ${name})
    mark_as_advanced(${include} ${library})
  endif()

  if(${include} AND ${library})
    # Linked by its name, never by its path: the loader would look for a library without a SONAME at
    # the very place where it was found here.
    if(${library} MATCHES "\\.a$")
      add_library(bv::${name} STATIC IMPORTED GLOBAL)
    else()
      add_library(bv::${name} SHARED IMPORTED GLOBAL)
      set_target_properties(bv::${name} PROPERTIES IMPORTED_NO_SONAME TRUE)
    endif()
    set_target_properties(bv::${name} PROPERTIES
      IMPORTED_LOCATION "${${library}}"
      INTERFACE_INCLUDE_DIRECTORIES "${${include}}")
    message(STATUS "${name}: installed (${${library}})")
  elseif(BV_COMPAT STREQUAL "AUTO" OR BV_COMPAT STREQUAL "ON" OR name IN_LIST BV_COMPAT_WANTED)
    set(BV_COMPAT_BUILT ${BV_COMPAT_BUILT} ${name} PARENT_SCOPE)
    message(STATUS "${name}: stand-in from compat/${name}")
  else()
    message(FATAL_ERROR
      "${name}: header ${header} or library ${name} not found, and BV_COMPAT=${BV_COMPAT} forbids the stand-in")
  endif()
endfunction()

bv_underneath(boundscheck securec.h)
bv_underneath(ubox libubox/uloop.h)
bv_underneath(ubus libubus.h)

if("ubus" IN_LIST BV_COMPAT_BUILT)
  set(BV_UBUSD "$<TARGET_FILE:bv_ubusd>")
else()
  unset(BV_UBUSD_PROGRAM CACHE)
  find_program(BV_UBUSD_PROGRAM ubusd PATHS /usr/sbin /sbin)
  mark_as_advanced(BV_UBUSD_PROGRAM)
  set(BV_UBUSD "${BV_UBUSD_PROGRAM}")
  set_property(TARGET bv::ubus APPEND PROPERTY INTERFACE_LINK_LIBRARIES bv::ubox)
endif()

# In a 32-bit program file offsets and times must have 64 bits, as in the library; many C libraries
# want to be asked for that.
include(CheckCSourceCompiles)
check_c_source_compiles("#include <sys/types.h>
  #include <time.h>
  typedef char wide[sizeof(off_t) == 8 && sizeof(time_t) == 8 ? 1 : -1];
  int main(void) { return 0; }" BV_WIDE_BY_DEFAULT)
set(BV_CALLER_DEFINITIONS "")
if(NOT BV_WIDE_BY_DEFAULT)
  set(BV_CALLER_DEFINITIONS _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
# The platform's own headers may want more than the compiler's default mode declares.
if(TARGET bv::ubus AND TARGET bv::ubox)
  include(CMakePushCheckState)
  cmake_push_check_state(RESET)
  get_target_property(CMAKE_REQUIRED_INCLUDES bv::ubox INTERFACE_INCLUDE_DIRECTORIES)
  get_target_property(ubus bv::ubus INTERFACE_INCLUDE_DIRECTORIES)
  list(APPEND CMAKE_REQUIRED_INCLUDES ${ubus} ${BV_JSONC_INCLUDE_DIRS})
  check_c_source_compiles("#include <libubox/uloop.h>
    #include <libubox/blobmsg.h>
    #include <libubus.h>
    int main(void) { return 0; }" BV_BUS_HEADERS_NEED_NOTHING)
  cmake_pop_check_state()
  if(NOT BV_BUS_HEADERS_NEED_NOTHING)
    list(APPEND BV_CALLER_DEFINITIONS _GNU_SOURCE)
  endif()
endif()
