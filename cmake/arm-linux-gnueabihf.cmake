# Cross build for the television's ARMv7 hard-float user space.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC notes, for every std::vector of a record holding 64-bit fields, that GCC 7.1 changed
# how such arguments are passed on ARM; everything here is built by one compiler, so the
# note says nothing and buries the build's real diagnostics.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Debian multiarch: armhf -dev packages live in /usr/lib/arm-linux-gnueabihf and /usr/include.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /usr)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# Tests and tools run under user-mode emulation.
# The armhf C library comes from Debian multiarch (libc6:armhf, with its own loader in
# /lib), so qemu-arm needs no sysroot prefix.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
