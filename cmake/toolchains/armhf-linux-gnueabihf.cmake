# The device ABI on a workstation: 32-bit ARM (armhf, hard-float EABI) built
# with Debian's cross compiler (g++-arm-linux-gnueabihf) against the armhf
# packages of Debian's multiarch (tinyxml2, GoogleTest, zlib in
# /usr/lib/arm-linux-gnueabihf), and run under qemu-user: ctest, GoogleTest's
# test discovery and every program a test starts (marlod, through
# MARLO_EMULATOR) go through qemu-arm. scripts/armhf.sh installs all of it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC notes on ARM that the passing of some standard-library arguments changed
# in GCC 7.1; it concerns linking with code built before that, which nothing
# here is.
set(CMAKE_C_FLAGS_INIT -Wno-psabi)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# The programs run against Debian's multiarch C library (libc6:armhf, which
# the armhf tinyxml2 needs anyway), so qemu's library prefix is "/": its
# dynamic loader /lib/ld-linux-armhf.so.3 and its libc.so.6 come from one
# build. The prefix of the cross toolchain (/usr/arm-linux-gnueabihf) would
# pair that toolchain's loader with the multiarch libc.so.6 that the loader
# then finds through /etc/ld.so.cache, two different builds of the C library:
# every program that starts a thread crashes in pthread_create.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /)

# Libraries, headers and packages of the target only; programs of the host.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
