# Cross build for a Linux target with Debian's cross toolchains.
#
#   cmake -S . -B build-mipsel -DCMAKE_TOOLCHAIN_FILE=cmake/linux-cross.cmake \
#         -DTEVUL_TARGET_TRIPLE=mipsel-linux-gnu -DTEVUL_SYSROOT=/path/to/sysroot
#
# TEVUL_TARGET_TRIPLE names the compilers (<triple>-gcc, <triple>-g++) and the
# multiarch directories; TEVUL_SYSROOT holds the target's libraries beyond the
# C and C++ runtime (SQLite, GoogleTest), unpacked from Debian packages. When
# qemu-<cpu>-static is installed, test programs run under it.
set(CMAKE_SYSTEM_NAME Linux)
if(NOT TEVUL_TARGET_TRIPLE)
  set(TEVUL_TARGET_TRIPLE mipsel-linux-gnu)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TEVUL_TARGET_TRIPLE TEVUL_SYSROOT)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${TEVUL_TARGET_TRIPLE}")

set(CMAKE_C_COMPILER ${TEVUL_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TEVUL_TARGET_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TEVUL_TARGET_TRIPLE})

set(TEVUL_TARGET_RUNTIME /usr/${TEVUL_TARGET_TRIPLE})
set(CMAKE_FIND_ROOT_PATH ${TEVUL_SYSROOT} ${TEVUL_TARGET_RUNTIME})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(TEVUL_QEMU NAMES qemu-${CMAKE_SYSTEM_PROCESSOR}-static qemu-${CMAKE_SYSTEM_PROCESSOR})
if(TEVUL_QEMU)
  # The C and C++ runtime come from the cross toolchain's directory; the
  # sysroot's libraries are found through the programs' build RPATH.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TEVUL_QEMU} -L ${TEVUL_TARGET_RUNTIME})
endif()
