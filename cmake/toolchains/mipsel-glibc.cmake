# SPDX-License-Identifier: ISC
# mipsel with glibc: Debian's own cross compiler and a sysroot of its packages, made by
# `scripts/setup-target glibc`.
set(BV_LIBC glibc)
include("${CMAKE_CURRENT_LIST_DIR}/mipsel.cmake")

set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)
set(CMAKE_SYSROOT "${BV_TARGET_CACHE}/glibc")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static-libgcc")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/mipsel-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
