# Cross-building for Debian's arm64 with its cross toolchain
# (crossbuild-essential-arm64), tests run under qemu-aarch64:
#
#   cmake -B build/cross-arm64 -G Ninja --toolchain cmake/toolchains/aarch64-linux-gnu.cmake
set(LEITCH_TRIPLET aarch64-linux-gnu)
set(LEITCH_PROCESSOR aarch64)
set(LEITCH_QEMU_NAME qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
