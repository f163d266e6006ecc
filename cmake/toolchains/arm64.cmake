# SPDX-License-Identifier: ISC
# 64-bit ARM with glibc: `scripts/setup-target arm64` makes the sysroot.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(BV_TRIPLET aarch64-linux-gnu)
set(BV_SYSROOT arm64)
set(BV_EMULATOR qemu-aarch64-static)
set(BV_USERLAND userland-arm64)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
