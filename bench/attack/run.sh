#!/usr/bin/env bash
# The "under attack" table: every attack, 15 hostile clients, on the built-in
# router and on 16 x 1152 x 1152, against a build's leitch-routerd or any
# other simulator binary and plug-in.
#
#   bench/attack/run.sh [build-dir]                       the build's simulator and plug-in
#   bench/attack/run.sh --routerd PATH --plugin PATH ...  any simulator; other options go to
#                                                         leitch-attack-bench (e.g. --seconds 5,
#                                                         --line-bytes 8192, --attack z-lines)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
if [ $# -eq 0 ] || [ "${1#--}" = "$1" ]; then
  build=${1:-$here/../../build/default}
  [ $# -gt 0 ] && shift
  bench=$build/bench/attack/leitch-attack-bench
  exec "$bench" --routerd "$build/sim/leitch-routerd" --plugin "$build/libleitch_passthrough.so" "$@"
fi
bench=${LEITCH_ATTACK_BENCH:-$here/../../build/default/bench/attack/leitch-attack-bench}
exec "$bench" "$@"
