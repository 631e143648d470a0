# SPDX-License-Identifier: Apache-2.0
# A toolchain file to begin with: for a 32-bit x86 set, with the cross compiler of a Debian
# system (g++-i686-linux-gnu) and the set's own root file system, which has the headers and
# libraries of Boost, jsoncpp and OpenSSL.
#
#   cmake --preset set -B build/i686-set -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-example.cmake \
#     -DCMAKE_SYSROOT=/path/of/the/set
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)

# Programs are this machine's; everything else is the set's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config takes the set's files, and puts the set's root before their paths.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${CMAKE_SYSROOT}/usr/lib/pkgconfig:${CMAKE_SYSROOT}/usr/lib/i386-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
