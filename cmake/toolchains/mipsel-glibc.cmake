# SPDX-License-Identifier: ISC
# mipsel with glibc: `scripts/setup-target glibc` makes the sysroot.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(BV_TRIPLET mipsel-linux-gnu)
set(BV_SYSROOT glibc)
set(BV_EMULATOR qemu-mipsel-static)
set(BV_USERLAND userland-glibc)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static-libgcc")
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
