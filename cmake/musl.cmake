# SPDX-License-Identifier: ISC
# Static musl build with clang, shared by the musl toolchain files. Debian
# has no C++ runtime for musl, so C++ takes libstdc++'s headers and static
# library from the GNU toolchain of the same architecture: the headers see
# musl through include/bits/c++config.h, and tests/musl_shims.c supplies the
# two glibc names the library itself still wants. The daemon needs none of
# that runtime; only the test programs link it.
#
# The including file sets:
#   WDS_MUSL_TRIPLE    clang's target and musl-dev's directory name,
#                      e.g. arm-linux-musleabihf
#   WDS_MUSL_CPU_FLAGS (optional) code generation flags
#   WDS_MUSL_CXX_FLAGS (optional) more flags for C++ only
# and for a cross build
#   WDS_GNU_TRIPLE     Debian's GNU cross toolchain (g++-TRIPLE), e.g.
#                      arm-linux-gnueabihf, whose libstdc++, libgcc, kernel
#                      headers and strip are used
#   WDS_QEMU           the qemu-user program that runs the test programs
# or for a native build the GNU toolchain's directories themselves:
#   WDS_GCC_LIB        libstdc++.a, libgcc.a and crtbeginT.o
#   WDS_CXX_INCLUDE    libstdc++'s include directories
#   WDS_KERNEL_LINUX, WDS_KERNEL_ASM, WDS_KERNEL_ASM_GENERIC
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_C_COMPILER_TARGET ${WDS_MUSL_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${WDS_MUSL_TRIPLE})
set(WDS_MUSL ON)

if(WDS_GNU_TRIPLE)
  set(gnu_include /usr/${WDS_GNU_TRIPLE}/include)
  set(WDS_GCC_LIB /usr/lib/gcc-cross/${WDS_GNU_TRIPLE}/12)
  set(WDS_CXX_INCLUDE ${gnu_include}/c++/12 ${gnu_include}/c++/12/${WDS_GNU_TRIPLE} ${gnu_include}/c++/12/backward)
  set(WDS_KERNEL_LINUX ${gnu_include}/linux)
  set(WDS_KERNEL_ASM ${gnu_include}/asm)
  set(WDS_KERNEL_ASM_GENERIC ${gnu_include}/asm-generic)
  # `cmake --install --strip` uses it; the host's strip knows only x86.
  set(CMAKE_STRIP /usr/bin/${WDS_GNU_TRIPLE}-strip)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${WDS_QEMU})
endif()

set(musl_include /usr/include/${WDS_MUSL_TRIPLE})
set(musl_lib /usr/lib/${WDS_MUSL_TRIPLE})

# The GNU include directories also hold glibc's headers: the kernel's are
# reached through a directory of their own that holds nothing else.
set(kernel_include ${CMAKE_BINARY_DIR}/kernel-include)
file(MAKE_DIRECTORY ${kernel_include})
file(CREATE_LINK ${WDS_KERNEL_LINUX} ${kernel_include}/linux SYMBOLIC)
file(CREATE_LINK ${WDS_KERNEL_ASM} ${kernel_include}/asm SYMBOLIC)
file(CREATE_LINK ${WDS_KERNEL_ASM_GENERIC} ${kernel_include}/asm-generic SYMBOLIC)

execute_process(COMMAND ${CMAKE_C_COMPILER} -print-resource-dir
  OUTPUT_VARIABLE clang_resource OUTPUT_STRIP_TRAILING_WHITESPACE)

set(c_include "-isystem ${musl_include} -isystem ${kernel_include} -isystem ${clang_resource}/include")
set(cxx_include "-isystem ${CMAKE_CURRENT_LIST_DIR}/musl/include")
foreach(dir IN LISTS WDS_CXX_INCLUDE)
  string(APPEND cxx_include " -isystem ${dir}")
endforeach()
set(CMAKE_C_FLAGS_INIT "${WDS_MUSL_CPU_FLAGS} -nostdinc ${c_include}")
set(CMAKE_CXX_FLAGS_INIT "${WDS_MUSL_CPU_FLAGS} ${WDS_MUSL_CXX_FLAGS} -nostdinc ${cxx_include} ${c_include}")
# Compile-only flags reach the link line too (in <FLAGS>); there they are
# unused by design.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wno-unused-command-line-argument -fuse-ld=lld -static -Wl,--gc-sections -L${musl_lib}")

# Every program is linked by hand: musl's start files, the objects, the
# libraries, then libstdc++, libgcc and musl's libc as one group.
set(start_files "${musl_lib}/crt1.o ${musl_lib}/crti.o ${WDS_GCC_LIB}/crtbeginT.o")
set(runtime "-Wl,--start-group ${WDS_GCC_LIB}/libstdc++.a ${WDS_GCC_LIB}/libgcc.a ${WDS_GCC_LIB}/libgcc_eh.a ${musl_lib}/libc.a -Wl,--end-group")
set(end_files "${WDS_GCC_LIB}/crtend.o ${musl_lib}/crtn.o")
foreach(lang C CXX)
  set(CMAKE_${lang}_LINK_EXECUTABLE
    "<CMAKE_${lang}_COMPILER> <FLAGS> <CMAKE_${lang}_LINK_FLAGS> <LINK_FLAGS> -nostdlib ${start_files} <OBJECTS> -o <TARGET> <LINK_LIBRARIES> ${runtime} ${end_files}")
endforeach()

set(CMAKE_FIND_ROOT_PATH ${musl_lib})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
