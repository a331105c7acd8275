# SPDX-License-Identifier: ISC
# Static build for little-endian 32-bit MIPS boards (the 24Kc and 1004Kc
# class, MIPS32r2) against musl (Debian's musl-dev:mipsel) with clang 14;
# libstdc++ and the kernel headers come from the mipsel-linux-gnu cross
# toolchain. Debian's musl is built for the hard-float ABI, so the code is
# too, and musl's sigsetjmp saves the FPU registers: on a core without an
# FPU the daemon needs the kernel's FPU emulator (CONFIG_MIPS_FP_SUPPORT).
# Programs run through qemu-user.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(WDS_MUSL_TRIPLE mipsel-linux-musl)
set(WDS_GNU_TRIPLE mipsel-linux-gnu)
set(WDS_MUSL_CPU_FLAGS "-march=mips32r2")
set(WDS_QEMU qemu-mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/musl.cmake)
