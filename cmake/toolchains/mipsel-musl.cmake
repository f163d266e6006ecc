# The gateway: 32-bit little-endian MIPS with musl. Compilers and libraries are made by
# `tools/target/setup musl`; programs run under user-mode emulation.
include("${CMAKE_CURRENT_LIST_DIR}/target-cache.cmake")

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER "${BV_TARGET_CACHE}/bin/mipsel-musl-gcc")
set(CMAKE_CXX_COMPILER "${BV_TARGET_CACHE}/bin/mipsel-musl-g++")
set(CMAKE_CXX_FLAGS_INIT "-DGTHREAD_USE_WEAK=0") # musl has no weak stubs of the thread functions
# Test programs carry the C++ library in themselves: the gateway has none.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libgcc -static-libstdc++ -Wl,-rpath-link,${BV_TARGET_CACHE}/musl-prefix/lib")
# The gateway's pages have 4 KiB; the linker would leave room for 64.
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096 -static-libgcc -Wl,-rpath-link,${BV_TARGET_CACHE}/musl-prefix/lib")

set(CMAKE_FIND_ROOT_PATH "${BV_TARGET_CACHE}/musl-prefix")
set(CMAKE_PREFIX_PATH "/")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${BV_TARGET_CACHE}/musl-prefix/lib/pkgconfig")

# The private root that tests run in consists of these mipsel programs.
set(BV_TEST_USERLAND "${BV_TARGET_CACHE}/userland-musl")
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-mipsel-static;-L;${BV_TARGET_CACHE}/userland-musl")
