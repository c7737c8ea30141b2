# Cross build for a Linux target that uses musl, OpenWrt's C library, with
# Zig's bundled clang and musl (Zig 0.11).
#
#   cmake -S . -B build-musl-mips -DCMAKE_TOOLCHAIN_FILE=cmake/zig-musl.cmake \
#         -DTEVUL_TARGET_TRIPLE=mips-linux-musl -DTEVUL_ZIG_WRAPPERS=/path/to/wrappers \
#         -DTEVUL_SYSROOT=/path/to/sysroot -DTEVUL_STATIC_PROGRAMS=ON
#
# TEVUL_ZIG_WRAPPERS holds <triple>-cc, <triple>-c++, <triple>-ar and
# <triple>-ranlib, each one line that runs `zig cc -target <triple>` and so on
# (dev.sh writes them). TEVUL_SYSROOT holds the target's SQLite (shared, for
# the library and the tool as they ship; static, for the test programs) and
# GoogleTest. Zig has no musl dynamic loader for the build machine, so the
# test programs are linked statically (TEVUL_STATIC_PROGRAMS) and run under
# qemu-<cpu>-static; the ELF tools are binutils' for the same CPU.
set(CMAKE_SYSTEM_NAME Linux)
if(NOT TEVUL_TARGET_TRIPLE)
  set(TEVUL_TARGET_TRIPLE mips-linux-musl)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TEVUL_TARGET_TRIPLE TEVUL_SYSROOT TEVUL_ZIG_WRAPPERS)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${TEVUL_TARGET_TRIPLE}")

set(CMAKE_C_COMPILER ${TEVUL_ZIG_WRAPPERS}/${TEVUL_TARGET_TRIPLE}-cc)
set(CMAKE_CXX_COMPILER ${TEVUL_ZIG_WRAPPERS}/${TEVUL_TARGET_TRIPLE}-c++)
set(CMAKE_AR ${TEVUL_ZIG_WRAPPERS}/${TEVUL_TARGET_TRIPLE}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${TEVUL_ZIG_WRAPPERS}/${TEVUL_TARGET_TRIPLE}-ranlib CACHE FILEPATH "")
set(TEVUL_BINUTILS_PREFIX ${CMAKE_SYSTEM_PROCESSOR}-linux-gnu-)
set(CMAKE_NM /usr/bin/${TEVUL_BINUTILS_PREFIX}nm CACHE FILEPATH "")
set(CMAKE_READELF /usr/bin/${TEVUL_BINUTILS_PREFIX}readelf CACHE FILEPATH "")
set(CMAKE_STRIP /usr/bin/${TEVUL_BINUTILS_PREFIX}strip CACHE FILEPATH "")
set(CMAKE_OBJCOPY /usr/bin/${TEVUL_BINUTILS_PREFIX}objcopy CACHE FILEPATH "")

# musl's libc.so as the shipped library and tool link against it (Zig's
# list of musl's symbols, dev.sh builds it into the sysroot).
set(TEVUL_C_LIBRARY ${TEVUL_SYSROOT}/usr/lib/libc-stub/libc.so)

set(CMAKE_FIND_ROOT_PATH ${TEVUL_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(TEVUL_QEMU NAMES qemu-${CMAKE_SYSTEM_PROCESSOR}-static)
if(TEVUL_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TEVUL_QEMU})
endif()
