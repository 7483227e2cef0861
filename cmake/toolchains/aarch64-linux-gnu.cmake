# Cross-building for Debian's arm64 with its cross toolchain
# (crossbuild-essential-arm64):
#
#   cmake -B build/cross-arm64 -G Ninja --toolchain cmake/toolchains/aarch64-linux-gnu.cmake
#
# Libraries of the target architecture come from Debian's multiarch packages
# (/usr/lib/aarch64-linux-gnu); architecture-independent headers, such as Boost's,
# from /usr/include, which the cross compiler searches after its own. Test
# programs run under qemu-user with the cross toolchain's C and C++ runtimes
# (/usr/aarch64-linux-gnu), so no binfmt registration is needed.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

find_program(LEITCH_QEMU qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${LEITCH_QEMU} -L /usr/aarch64-linux-gnu)
