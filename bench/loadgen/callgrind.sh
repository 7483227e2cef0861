#!/usr/bin/env bash
# Instructions per take of a server, counted by callgrind: one client makes
# takes (sequential, then pipelined); the difference between a run of 2,500
# and one of 7,500 takes leaves start-up and connection out.
#
#   bench/loadgen/callgrind.sh ROUTER.toml DESTINATIONS [server command...]
#
# Without a server command: build/default's leitch-routerd.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
config=$1
destinations=$2
shift 2
server=("$@")
[ ${#server[@]} -gt 0 ] || server=("$here/../../build/default/sim/leitch-routerd")
loadgen=${LOADGEN:-$here/../../build/default/bench/loadgen/leitch-loadgen}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Prints the user-space instructions the server ran for `takes` takes.
count() {
  local takes=$1
  valgrind --tool=callgrind --callgrind-out-file="$work/cg.$takes" \
    "${server[@]}" --listen 127.0.0.1:0 --config "$config" >"$work/out" 2>"$work/err" &
  local pid=$!
  for _ in $(seq 600); do
    grep -q '^listening on ' "$work/out" 2>/dev/null && break
    sleep 0.1
  done
  local port
  port=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$work/out")
  "$loadgen" --port "$port" --pid "$pid" --clients 1 --destinations "$destinations" --takes "$takes" >/dev/null
  kill -INT "$pid"
  wait "$pid" || true
  awk '/^(summary|totals):/ { print $2; exit }' "$work/cg.$takes"
}

small=$(count 2500)
large=$(count 7500)
# Each run makes its takes five times over: once sequential, four times pipelined.
echo "$(( (large - small) / 25000 )) instructions/take"
