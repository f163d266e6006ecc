# SPDX-License-Identifier: ISC
# What all machines have in common whose programs do not run here by themselves, most of them under
# user-mode emulation. BV_EMULATOR is the emulator, BV_USERLAND the root folder to test in.

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
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The private root that tests run in consists of that machine's programs.
set(BV_TEST_USERLAND "${BV_TARGET_CACHE}/${BV_USERLAND}")
set(CMAKE_CROSSCOMPILING_EMULATOR "${BV_EMULATOR};-L;${BV_TEST_USERLAND}")
