# 32-bit ARM hard-float (ARMv7, VFP argument passing) with Debian's cross
# toolchain: gcc-arm-linux-gnueabihf and g++-arm-linux-gnueabihf. There is no
# sysroot; the target's headers and libraries live in Debian's multiarch cross
# layout under /usr/arm-linux-gnueabihf, which the cross compiler searches on
# its own.
#
#   cmake --preset armhf
#
# Test programs are run with qemu-arm (the preset sets SHM_TEST_EMULATOR).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(SHM_CROSS_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${SHM_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${SHM_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${SHM_CROSS_TRIPLET})

# Libraries, headers and CMake packages come from the target's tree only, so a
# host (x86) library can never be picked up; programs run on the build machine
# and come from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${SHM_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
