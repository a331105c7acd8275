# SPDX-License-Identifier: ISC
# Static build for 32-bit ARM boards against musl (Debian's musl-dev:armhf)
# with clang 14; libstdc++ and the kernel headers come from the
# arm-linux-gnueabihf cross toolchain. Code for Debian's armhf baseline
# (ARMv7-A, Thumb-2, VFPv3-D16). Programs run through qemu-user.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(WDS_MUSL_TRIPLE arm-linux-musleabihf)
set(WDS_MUSL_ARCH_DIR arm-linux-musleabihf)
set(WDS_MUSL_CPU_FLAGS "-march=armv7-a -mthumb -mfpu=vfpv3-d16")
set(WDS_GCC_LIB /usr/lib/gcc-cross/arm-linux-gnueabihf/12)
set(cross /usr/arm-linux-gnueabihf/include)
set(WDS_CXX_INCLUDE ${cross}/c++/12 ${cross}/c++/12/arm-linux-gnueabihf ${cross}/c++/12/backward)
set(WDS_KERNEL_LINUX ${cross}/linux)
set(WDS_KERNEL_ASM ${cross}/asm)
set(WDS_KERNEL_ASM_GENERIC ${cross}/asm-generic)
include(${CMAKE_CURRENT_LIST_DIR}/musl.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
