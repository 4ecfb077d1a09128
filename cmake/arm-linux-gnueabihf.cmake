# 32-bit ARM, hard float: Debian's cross compiler and its armhf packages. What is built runs under qemu's user-mode
# emulation.
#
# No sysroot: Debian installs packages of both architectures side by side. The emulator is given no library path (-L) for
# the same reason: the loader and the C library of the cross compiler's folder are not those that the packages bring.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm-static)
# No notes on what g++ before version 7 passed in another way.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# Libraries and package files of the target; programs that run while building are this machine's own.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
