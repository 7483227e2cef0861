#!/usr/bin/env bash
# The load generator against leitch-routerd (built-in router and a 16 x 1152 x 1152
# one) and against the calibration responder, for 1, 16 and 64 clients.
# Prints a markdown table.
#
#   bench/loadgen/run.sh [build-dir] [takes]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../../build/default}
takes=${2:-3000}
routerd=$build/sim/leitch-routerd
loadgen=$build/bench/loadgen/leitch-loadgen
responder=$build/bench/loadgen/leitch-responder
work=$(mktemp -d)
server_pid=
trap '[ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null; rm -rf "$work"' EXIT

source "$here/server.sh"

echo "| server | clients | sequential takes/s | pipelined takes/s | fan-out p50 µs | p99 µs | max µs | server CPU µs/take | connect to full \"@ S?0\" ms |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|"
for router in builtin large; do
  if [ $router = builtin ]; then destinations=32; label="leitch-routerd, 2 x 32 x 32"; else destinations=1152; label="leitch-routerd, 16 x 1152 x 1152"; fi
  for clients in 1 16 64; do
    start "$responder" --listen 127.0.0.1:0 --destinations $destinations
    "$loadgen" --port "$port" --pid "$server_pid" --clients $clients --destinations $destinations --takes "$takes" \
      --label "responder, $destinations destinations"
    stop
    start "$routerd" --listen 127.0.0.1:0 --config "$here/${router}_router.toml"
    "$loadgen" --port "$port" --pid "$server_pid" --clients $clients --destinations $destinations --takes "$takes" \
      --label "$label"
    stop
  done
done
