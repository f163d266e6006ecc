# 32-bit little-endian MIPS with glibc: Debian's own cross compiler and a sysroot of its packages,
# made by `tools/target/setup glibc`; programs run under user-mode emulation.
include("${CMAKE_CURRENT_LIST_DIR}/target-cache.cmake")

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)
set(CMAKE_SYSROOT "${BV_TARGET_CACHE}/glibc")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static-libgcc")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${BV_TARGET_CACHE}/glibc")
set(ENV{PKG_CONFIG_LIBDIR} "${BV_TARGET_CACHE}/glibc/usr/lib/mipsel-linux-gnu/pkgconfig:${BV_TARGET_CACHE}/glibc/usr/share/pkgconfig")

set(BV_TEST_USERLAND "${BV_TARGET_CACHE}/userland-glibc")
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-mipsel-static;-L;${BV_TARGET_CACHE}/userland-glibc")
