#!/usr/bin/env bash
# The whole test suite on a fresh Debian machine: installs what is missing,
# then builds and runs every test twice, in the normal build and under
# AddressSanitizer + UndefinedBehaviorSanitizer, runs the state file's tests
# under ThreadSanitizer, and fuzzes the plug-in for a
# bounded time (LEITCH_FUZZ_SECONDS, 120 unless set), the transcript parser
# (LEITCH_PARSER_FUZZ_SECONDS, 30), the Videohub codec
# (LEITCH_VIDEOHUB_FUZZ_SECONDS, 30) and the SW-P-08 codec
# (LEITCH_SWP08_FUZZ_SECONDS, 20). Any finding fails the run,
# and so does any compiler warning (LEITCH_WARNINGS_AS_ERRORS).
#
# Then what is shipped: the Debian packages are built and checked with
# lintian, the systemd unit is verified and rated, the packages are installed
# into a fresh Debian root and the installed simulator is driven over TCP, the
# root is booted with systemd to drive the service itself, the
# plug-in's test suite is cross-built for arm64 and armhf and run under
# qemu-user, and the packages are built for arm64 and their simulator driven
# under qemu-user. Each stage's time is printed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

timings=()
stage_name=""
stage_start=0
begin() {
  end_stage
  stage_name=$1
  stage_start=$SECONDS
  echo "=== $stage_name"
}
end_stage() {
  [ -n "$stage_name" ] && timings+=("$(printf '%6d s  %s' $((SECONDS - stage_start)) "$stage_name")")
  stage_name=""
}
report_times() {
  local status=$?
  [ -n "$stage_name" ] && timings+=("$(printf '%6d s  %s%s' $((SECONDS - stage_start)) "$stage_name" \
    "$([ $status -ne 0 ] && echo ' (failed)')")")
  echo "=== stage times"
  printf '%s\n' "${timings[@]}"
  printf '%6d s  total\n' "$SECONDS"
}
trap report_times EXIT

begin "install dependencies"
scripts/install-deps.sh

# Set, so that the tests against the Videohub mockup fail rather than skip
# when it is missing.
begin "Videohub mockup server (npm ci)"
scripts/install-videohub-mockup.sh
export LEITCH_REQUIRE_MOCKUP=1

jobs=$(nproc)
for preset in default sanitize; do
  begin "$preset build and tests"
  cmake --preset "$preset" -DLEITCH_WARNINGS_AS_ERRORS=ON
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done

# The one place with two threads: the event loop and the state file's writer,
# which hands its work back through the loop's inbox.
begin "ThreadSanitizer build and the state file's tests"
cmake --preset tsan -DLEITCH_WARNINGS_AS_ERRORS=ON
cmake --build --preset tsan -j "$jobs"
ctest --preset tsan -j "$jobs"

begin "fuzz build"
cmake --preset fuzz -DLEITCH_WARNINGS_AS_ERRORS=ON
cmake --build --preset fuzz -j "$jobs"

# Runs one fuzz target on $jobs processes for a time:
#   fuzz WHAT TARGET SECONDS CORPUS ARTIFACTS MAX_LEN [FLAG | READ-ONLY CORPUS]...
# New inputs go to CORPUS; the other corpora are read only. A finding stops
# the run and is written to ARTIFACTS.
fuzz() {
  local what=$1 target=$2 seconds=$3 corpus=$4 artifacts=$5 max_len=$6
  shift 6
  mkdir -p "$corpus" "$artifacts"
  if ! "build/fuzz/fuzz/$target" -fork="$jobs" -max_total_time="$seconds" \
      -ignore_crashes=0 -ignore_timeouts=0 -ignore_ooms=0 \
      -max_len="$max_len" -timeout=20 -rss_limit_mb=2048 \
      -artifact_prefix="$artifacts/" -print_final_stats=1 "$corpus" "$@"; then
    echo "$what found a problem; inputs in $artifacts/:" >&2
    ls -l "$artifacts/" >&2
    exit 1
  fi
}

# The plug-in: the transcript seeds and the saved regressions are read only;
# add a finding to fuzz/regressions/ together with the fix.
seconds=${LEITCH_FUZZ_SECONDS:-120}
begin "fuzzing for ${seconds}s on $jobs processes"
fuzz "fuzzing" leitch_fuzz "$seconds" build/fuzz/corpus build/fuzz/artifacts 4096 -dict=fuzz/leitch.dict \
  build/fuzz/fuzz/seeds fuzz/hostile fuzz/regressions

# The transcript parser, which leitch-replay runs on whatever file it is
# given, beside the plug-in: its seeds are the transcripts themselves.
parser_seconds=${LEITCH_PARSER_FUZZ_SECONDS:-30}
begin "fuzzing the transcript parser for ${parser_seconds}s"
fuzz "fuzzing the transcript parser" transcript_fuzz "$parser_seconds" build/fuzz/transcript-corpus \
  build/fuzz/transcript-artifacts 4096 tests/transcripts fuzz/transcript_hostile

# The Videohub codec's reader, on what a router might send.
videohub_seconds=${LEITCH_VIDEOHUB_FUZZ_SECONDS:-30}
begin "fuzzing the Videohub codec for ${videohub_seconds}s"
fuzz "fuzzing the Videohub codec" videohub_fuzz "$videohub_seconds" build/fuzz/videohub-corpus \
  build/fuzz/videohub-artifacts 65536 fuzz/videohub_seeds

# The SW-P-08 codec's link and messages, on what a router might send.
swp08_seconds=${LEITCH_SWP08_FUZZ_SECONDS:-20}
begin "fuzzing the SW-P-08 codec for ${swp08_seconds}s"
fuzz "fuzzing the SW-P-08 codec" swp08_fuzz "$swp08_seconds" build/fuzz/swp08-corpus \
  build/fuzz/swp08-artifacts 4096 fuzz/swp08_seeds

# The tests ran above; the package build does not run them again.
begin "Debian packages and lintian"
rm -rf build/packages
DEB_BUILD_OPTIONS="nocheck parallel=$jobs" scripts/package.sh --out build/packages

begin "systemd unit: verify and security rating"
scripts/check-unit.sh build/packages

begin "install test in a fresh Debian root"
scripts/install-test.sh build/packages

begin "the service under systemd (systemd-nspawn)"
scripts/service-test.sh build/packages

for arch in arm64 armhf; do
  begin "$arch: cross-built plug-in tests under qemu-user"
  scripts/cross-test.sh "$arch"
done

begin "arm64 Debian packages, lintian, and a take under qemu-user"
rm -rf build/packages-arm64
DEB_BUILD_OPTIONS="parallel=$jobs" scripts/package.sh --arch arm64 --out build/packages-arm64
scripts/emulated-package-test.sh arm64 build/packages-arm64
end_stage
