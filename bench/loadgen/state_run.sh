#!/usr/bin/env bash
# Takes with the state file against takes in memory, in one run on one disk:
# first the disk's own commit rate alone (SQLite, WAL, synchronous = FULL:
# one fsync a commit, one row each, in the directory the state file goes in),
# then the load generator against the built-in router in memory and with
# --state, for 1 and 16 clients (client 0 makes the takes, every client gets
# the reports) with 32 takes outstanding, and with 2,048 outstanding (a window
# that covers a commit: a take's report waits for its commit, so 32
# outstanding takes make at most 32 takes a commit). Prints a markdown table.
#
#   bench/loadgen/state_run.sh [build-dir] [takes] [directory]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../../build/default}
takes=${2:-2000}
directory=${3:-${TMPDIR:-/var/tmp}}
routerd=$build/sim/leitch-routerd
loadgen=$build/bench/loadgen/leitch-loadgen
work=$(mktemp -d "$directory/leitch-state-bench.XXXXXX")
server_pid=
trap '[ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null; rm -rf "$work"' EXIT

# The disk's own commit rate now: SQLite, WAL, synchronous = FULL, commits of
# one row, one fsync each. The disk's speed drifts by 2x within minutes, so it
# is measured again just before each run with --state.
disk_rate() {
  rm -f "$work"/alone.db*
  python3 - "$work/alone.db" 500 <<'EOF'
import sqlite3, sys, time
db = sqlite3.connect(sys.argv[1], isolation_level=None)
db.execute("PRAGMA locking_mode = EXCLUSIVE")
db.execute("PRAGMA journal_mode = WAL")
db.execute("PRAGMA synchronous = FULL")
db.execute("CREATE TABLE t (k INTEGER PRIMARY KEY, v INTEGER)")
count = int(sys.argv[2])
began = time.monotonic()
for i in range(count):
    db.execute("BEGIN")
    db.execute("INSERT OR REPLACE INTO t VALUES (?, ?)", (i % 64, i))
    db.execute("COMMIT")
print(round(count / (time.monotonic() - began)))
EOF
}
echo "The disk alone before each --state run: SQLite, WAL, synchronous = FULL, 500 commits of one row."
echo

source "$here/server.sh"

echo "| server | clients | sequential takes/s | pipelined takes/s | fan-out p50 µs | p99 µs | max µs | server CPU µs/take | connect to full \"@ S?0\" ms |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|"
for run in "1 32" "16 32" "1 2048" "16 2048"; do
  read -r clients window <<<"$run"
  for mode in memory state; do
    args=(--listen 127.0.0.1:0 --http off --config "$here/builtin_router.toml")
    label="in memory, $window outstanding"
    if [ $mode = state ]; then
      rm -f "$work"/state.db*
      args+=(--state "$work/state.db")
      label="--state, $window outstanding (disk alone: $(disk_rate) commits/s)"
    fi
    start "$routerd" "${args[@]}"
    "$loadgen" --port "$port" --pid "$server_pid" --clients $clients --destinations 32 --takes "$takes" \
      --window "$window" --label "$label" | tail -n 1
    stop
  done
done
