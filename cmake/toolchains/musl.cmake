# SPDX-License-Identifier: ISC
# musl with compilers and libraries that scripts/setup-target makes. BV_MUSL is the libraries' folder.
include("${CMAKE_CURRENT_LIST_DIR}/emulated.cmake")

set(BV_MUSL "${BV_TARGET_CACHE}/${BV_MUSL}")
set(CMAKE_C_COMPILER "${BV_TARGET_CACHE}/bin/${CMAKE_SYSTEM_PROCESSOR}-musl-gcc")
set(CMAKE_CXX_COMPILER "${BV_TARGET_CACHE}/bin/${CMAKE_SYSTEM_PROCESSOR}-musl-g++")
set(CMAKE_CXX_FLAGS_INIT "-DGTHREAD_USE_WEAK=0") # musl has no weak stubs of the thread functions
# Test programs carry the C++ library in themselves: the gateway has none.
# The gateway's pages have 4 KiB; the linker would leave room for 64, which makes small programs of 67 KB.
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-Wl,-z,max-page-size=4096 -static-libgcc -static-libstdc++ -Wl,-rpath-link,${BV_MUSL}/lib")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096 -static-libgcc -Wl,-rpath-link,${BV_MUSL}/lib")
set(CMAKE_FIND_ROOT_PATH "${BV_MUSL}")
set(CMAKE_PREFIX_PATH "/")
set(ENV{PKG_CONFIG_LIBDIR} "${BV_MUSL}/lib/pkgconfig")
