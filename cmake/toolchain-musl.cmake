# SPDX-License-Identifier: ISC
# Static x86_64 build against musl (Debian's musl-dev) with clang 14.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(WDS_MUSL_TRIPLE x86_64-linux-musl)
set(WDS_GCC_LIB /usr/lib/gcc/x86_64-linux-gnu/12)
set(WDS_CXX_INCLUDE /usr/include/c++/12 /usr/include/x86_64-linux-gnu/c++/12 /usr/include/c++/12/backward)
set(WDS_KERNEL_LINUX /usr/include/linux)
set(WDS_KERNEL_ASM /usr/include/x86_64-linux-gnu/asm)
set(WDS_KERNEL_ASM_GENERIC /usr/include/asm-generic)
# GNU's strip, for `cmake --install --strip`: CMake would take llvm-strip
# where it happens to be installed, and sizes would differ between machines.
set(CMAKE_STRIP /usr/bin/strip)
include(${CMAKE_CURRENT_LIST_DIR}/musl.cmake)
