# Cross build for the device (AArch64 Linux, glibc) with Debian's cross
# compiler and its arm64 packages (dpkg --add-architecture arm64):
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# Programs of the build run under qemu-user (test discovery, CTest), and
# cpack makes an arm64 package.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Debian multiarch: arm64 libraries and CMake packages live under
# /usr/lib/aarch64-linux-gnu, beside the host's.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# The programs run on Debian's arm64 runtime (libc6:arm64, libstdc++6:arm64
# and the -dev packages' libraries, all under /lib/aarch64-linux-gnu), loaded
# by its own /lib/ld-linux-aarch64.so.1. Not -L /usr/aarch64-linux-gnu: that
# takes the cross toolchain's ld.so but still finds the arm64 libc of another
# glibc build, and that mix breaks fork() and pthread_create in the program.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /)

set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
