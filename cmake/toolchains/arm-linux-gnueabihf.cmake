# Cross-building for Debian's armhf with its cross toolchain
# (crossbuild-essential-armhf):
#
#   cmake -B build/cross-armhf -G Ninja --toolchain cmake/toolchains/arm-linux-gnueabihf.cmake
#
# Libraries of the target architecture come from Debian's multiarch packages
# (/usr/lib/arm-linux-gnueabihf); architecture-independent headers, such as Boost's,
# from /usr/include, which the cross compiler searches after its own. Test
# programs run under qemu-user with the cross toolchain's C and C++ runtimes
# (/usr/arm-linux-gnueabihf), so no binfmt registration is needed.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

find_program(LEITCH_QEMU qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${LEITCH_QEMU} -L /usr/arm-linux-gnueabihf)
