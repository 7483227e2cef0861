#!/usr/bin/env bash
# The whole test suite on a fresh Debian machine: installs what is missing,
# then builds and runs every test twice, in the normal build and under
# AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc)
for preset in default sanitize; do
  echo "=== $preset build"
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
