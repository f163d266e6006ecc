# SPDX-License-Identifier: ISC
# The gateway: mipsel with musl. `scripts/setup-target musl` makes compilers and libraries.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(BV_EMULATOR qemu-mipsel-static)
set(BV_USERLAND userland-musl)
set(BV_MUSL musl-prefix)
set(BV_MIPS16 ON) # the gateway's processor, a 24K, has these instructions
include("${CMAKE_CURRENT_LIST_DIR}/musl.cmake")
