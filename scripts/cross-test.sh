#!/usr/bin/env bash
# Cross-builds the plug-in and its test programs for ARM with Debian's cross
# toolchains and runs the plug-in's whole test suite under qemu-user
# (CMAKE_CROSSCOMPILING_EMULATOR): scanner, contract, loader, framing,
# table-slot, transcript and saved-fuzz-input tests, and the check that the
# library exports only create and destroy (with the cross nm).
#
#   scripts/cross-test.sh               arm64 and armhf
#   scripts/cross-test.sh armhf         one of them
#
# GoogleTest for the target comes from Debian's multiarch package
# (libgtest-dev:arm64) when it is installed, else it is built here from the
# sources Debian ships in /usr/src/googletest with the same cross compiler.
set -euo pipefail
cd "$(dirname "$0")/.."

arches=("$@")
[ ${#arches[@]} -eq 0 ] && arches=(arm64 armhf)
jobs=$(nproc)

for arch in "${arches[@]}"; do
  case "$arch" in
    arm64) triplet=aarch64-linux-gnu ;;
    armhf) triplet=arm-linux-gnueabihf ;;
    *) echo "unknown architecture $arch (arm64 or armhf)" >&2; exit 2 ;;
  esac
  toolchain=$PWD/cmake/toolchains/$triplet.cmake
  build=build/cross-$arch
  prefix=()
  if [ ! -e "/usr/lib/$triplet/libgtest.a" ]; then
    gtest=build/cross-$arch-googletest
    if [ ! -e "$gtest/install/lib/libgtest.a" ]; then
      echo "=== $arch: GoogleTest from /usr/src/googletest"
      cmake -S /usr/src/googletest -B "$gtest/build" -G Ninja --toolchain "$toolchain" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$PWD/$gtest/install" \
        -DCMAKE_INSTALL_LIBDIR=lib >/dev/null
      cmake --build "$gtest/build" -j "$jobs"
      cmake --install "$gtest/build" >/dev/null
    fi
    prefix=(-DCMAKE_PREFIX_PATH="$PWD/$gtest/install")
  fi

  echo "=== $arch: plug-in and its tests"
  cmake -B "$build" -G Ninja --toolchain "$toolchain" "${prefix[@]}" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLEITCH_WARNINGS_AS_ERRORS=ON \
    -DLEITCH_SIMULATOR=OFF -DLEITCH_BENCHMARKS=OFF -DLEITCH_TESTS=ON
  cmake --build "$build" -j "$jobs"
  file "$build/libleitch_passthrough.so"
  ctest --test-dir "$build" -j "$jobs" --output-on-failure
done
