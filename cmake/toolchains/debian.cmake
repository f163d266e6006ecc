# SPDX-License-Identifier: ISC
# Debian's own cross compiler and a sysroot of its packages, made by scripts/setup-target.
# BV_TRIPLET is the machine's name in Debian, BV_SYSROOT the sysroot's folder.
include("${CMAKE_CURRENT_LIST_DIR}/emulated.cmake")

set(CMAKE_C_COMPILER ${BV_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${BV_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${BV_TRIPLET})
set(CMAKE_SYSROOT "${BV_TARGET_CACHE}/${BV_SYSROOT}")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/${BV_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
