#!/usr/bin/env bash
# Starts a leitch-routerd command line (which must listen on 127.0.0.1:0), waits
# for "listening on", switches a crosspoint over TCP in report mode and checks
# that the report S:05,3 comes back, then stops it with SIGTERM and checks exit
# status 0. The simulator's log is left in LOG (and printed).
#
#   scripts/routerd-smoke.sh LOG COMMAND [ARGS...]
#   scripts/routerd-smoke.sh --take PORT       only the take, on a running simulator
set -euo pipefail

# Report mode, a take, and its report.
take() {
  local reply
  exec 3<>"/dev/tcp/127.0.0.1/$1"
  printf '@ ?\r@ X:0/5,3\r' >&3
  reply=$(timeout 3 cat <&3 || true)
  exec 3>&-
  printf '%s\n' "$reply" | tr -d '\r' | sed 's/^/  received: /'
  # Not through a pipe: grep -q leaving early would fail it under pipefail.
  [[ $reply == *S:05,3* ]]
}

if [ "$1" = --take ]; then
  take "$2" || { echo "no report S:05,3" >&2; exit 1; }
  exit 0
fi

log=$1
shift
out=$log.out
"$@" >"$out" 2>"$log" &
server=$!
trap 'kill "$server" 2>/dev/null || true' EXIT
for _ in $(seq 300); do
  grep -q '^listening on' "$out" 2>/dev/null && break
  kill -0 "$server" 2>/dev/null || { cat "$log" >&2; echo "the simulator stopped" >&2; exit 1; }
  sleep 0.1
done
port=$(sed -n 's/^listening on 127.0.0.1:\([0-9]*\)$/\1/p' "$out")
[ -n "$port" ] || { cat "$log" >&2; echo "the simulator did not start" >&2; exit 1; }

take "$port" || { cat "$log" >&2; echo "no report S:05,3" >&2; exit 1; }

kill -TERM "$server"
status=0
wait "$server" || status=$?
trap - EXIT
sed 's/^/  log: /' "$log"
[ "$status" -eq 0 ] || { echo "exit status $status after SIGTERM" >&2; exit 1; }
