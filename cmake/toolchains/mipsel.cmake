# SPDX-License-Identifier: ISC
# What both C libraries of the 32-bit little-endian MIPS have in common. BV_LIBC says which one.

# Where scripts/setup-target keeps compilers and sysroots; the same rule as in scripts/cache.sh.
if(NOT BV_TARGET_CACHE)
  if(DEFINED ENV{BV_TARGET_CACHE})
    set(BV_TARGET_CACHE "$ENV{BV_TARGET_CACHE}")
  elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(BV_TARGET_CACHE "$ENV{XDG_CACHE_HOME}/libbv-target")
  else()
    set(BV_TARGET_CACHE "$ENV{HOME}/.cache/libbv-target")
  endif()
endif()
# try_compile() runs the toolchain file again in a project of its own: hand the variable on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES BV_TARGET_CACHE)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The private root that tests run in consists of these mipsel programs.
set(BV_TEST_USERLAND "${BV_TARGET_CACHE}/userland-${BV_LIBC}")
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-mipsel-static;-L;${BV_TEST_USERLAND}")
