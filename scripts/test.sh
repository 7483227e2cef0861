#!/usr/bin/env bash
# The whole test suite on a fresh Debian machine: installs what is missing,
# then builds and runs every test twice, in the normal build and under
# AddressSanitizer + UndefinedBehaviorSanitizer, and fuzzes the plug-in for a
# bounded time (LEITCH_FUZZ_SECONDS, 120 unless set). Any finding fails the run,
# and so does any compiler warning (LEITCH_WARNINGS_AS_ERRORS).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc)
for preset in default sanitize; do
  echo "=== $preset build"
  cmake --preset "$preset" -DLEITCH_WARNINGS_AS_ERRORS=ON
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done

echo "=== fuzz build"
cmake --preset fuzz -DLEITCH_WARNINGS_AS_ERRORS=ON
cmake --build --preset fuzz -j "$jobs"

# New inputs go to the working corpus; the transcript seeds and the saved
# regressions are read only. A finding stops the run and is written to
# build/fuzz/artifacts/: add it to fuzz/regressions/ together with the fix.
seconds=${LEITCH_FUZZ_SECONDS:-120}
mkdir -p build/fuzz/corpus build/fuzz/artifacts
echo "=== fuzzing for ${seconds}s on $jobs processes"
if ! build/fuzz/fuzz/leitch_fuzz -fork="$jobs" -max_total_time="$seconds" \
    -ignore_crashes=0 -ignore_timeouts=0 -ignore_ooms=0 \
    -max_len=4096 -timeout=20 -rss_limit_mb=2048 -dict=fuzz/leitch.dict \
    -artifact_prefix=build/fuzz/artifacts/ -print_final_stats=1 \
    build/fuzz/corpus build/fuzz/fuzz/seeds fuzz/hostile fuzz/regressions; then
  echo "fuzzing found a problem; inputs in build/fuzz/artifacts/:" >&2
  ls -l build/fuzz/artifacts/ >&2
  exit 1
fi
