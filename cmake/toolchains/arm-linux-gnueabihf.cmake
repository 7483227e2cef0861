# Cross-building for Debian's armhf with its cross toolchain
# (crossbuild-essential-armhf), tests run under qemu-arm:
#
#   cmake -B build/cross-armhf -G Ninja --toolchain cmake/toolchains/arm-linux-gnueabihf.cmake
set(LEITCH_TRIPLET arm-linux-gnueabihf)
set(LEITCH_PROCESSOR arm)
set(LEITCH_QEMU_NAME qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
