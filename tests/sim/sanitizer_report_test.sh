#!/usr/bin/env bash
# The sanitizer build: the shell tests' check, no_sanitizer_report.sh, fails on
# the report of a simulator whose converter reads freed memory, and prints it.
#
#   sanitizer_report_test.sh PATH-TO-leitch-routerd PATH-TO-faulty-plugin PATH-TO-no_sanitizer_report.sh
set -euo pipefail

routerd=$1
plugin=$2
check=$3
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

"$routerd" --listen 127.0.0.1:0 --http off --plugin "$plugin" >"$dir/out" 2>"$dir/log" &
pid=$!
for _ in $(seq 600); do
  grep -q '^listening on' "$dir/out" && break
  sleep 0.05
done
port=$(sed -n 's/^listening on 127.0.0.1:\([0-9]*\)$/\1/p' "$dir/out")
[ -n "$port" ] || { cat "$dir/log"; echo "the simulator did not start"; kill -9 "$pid"; exit 1; }

exec 3<>"/dev/tcp/127.0.0.1/$port"
printf 'heap\r' >&3
for _ in $(seq 600); do
  kill -0 "$pid" 2>/dev/null || break
  sleep 0.05
done
kill -9 "$pid" 2>/dev/null || true
status=0
wait "$pid" || status=$?
exec 3>&-
[ "$status" -eq 1 ] || { cat "$dir/log"; echo "exit status $status, not 1"; exit 1; }

if bash "$check" "$dir/log" >"$dir/said"; then
  cat "$dir/log"
  echo "the check found no report"
  exit 1
fi
[ "$(head -n 1 "$dir/said")" = "leitch-routerd wrote a sanitizer report:" ] || { cat "$dir/said"; exit 1; }
grep -qE '^==[0-9]+==ERROR: AddressSanitizer: heap-use-after-free on address ' "$dir/said" || { cat "$dir/said"; exit 1; }
echo "the check found the report and printed it"
