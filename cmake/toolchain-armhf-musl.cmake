# SPDX-License-Identifier: ISC
# Static build for 32-bit ARM boards against musl (Debian's musl-dev:armhf)
# with clang 14; libstdc++ and the kernel headers come from the
# arm-linux-gnueabihf cross toolchain. Code for Debian's armhf baseline
# (ARMv7-A, Thumb-2, VFPv3-D16). Programs run through qemu-user.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(WDS_MUSL_TRIPLE arm-linux-musleabihf)
set(WDS_GNU_TRIPLE arm-linux-gnueabihf)
set(WDS_MUSL_CPU_FLAGS "-march=armv7-a -mthumb -mfpu=vfpv3-d16")
set(WDS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/musl.cmake)
