# SPDX-License-Identifier: ISC
# An x86_64 workstation with musl. `scripts/setup-target amd64` makes compilers and libraries.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(BV_USERLAND userland-amd64-musl)
set(BV_MUSL musl-prefix-amd64)
include("${CMAKE_CURRENT_LIST_DIR}/musl.cmake")
# Not emulated: musl's loader runs its programs where the system has none.
set(CMAKE_CROSSCOMPILING_EMULATOR "${BV_TEST_USERLAND}/lib/libc.so;--library-path;${BV_TEST_USERLAND}/lib")
