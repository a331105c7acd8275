# SPDX-License-Identifier: ISC
# Static build for 64-bit ARM boards against musl (Debian's musl-dev:arm64)
# with clang 14; libstdc++ and the kernel headers come from the
# aarch64-linux-gnu cross toolchain. Code for ARMv8-A. Programs run through
# qemu-user.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(WDS_MUSL_TRIPLE aarch64-linux-musl)
set(WDS_GNU_TRIPLE aarch64-linux-gnu)
set(WDS_QEMU qemu-aarch64)
# C++ must see libstdc++'s size of pthread_mutex_t (see the header).
set(WDS_MUSL_CXX_FLAGS "-include ${CMAKE_CURRENT_LIST_DIR}/musl/glibc_mutex.h")
include(${CMAKE_CURRENT_LIST_DIR}/musl.cmake)
