#!/usr/bin/env bash
# The log is time-stamped on an ordinary standard error, and not when standard
# error is the stream systemd names in JOURNAL_STREAM (the journal stamps lines
# itself).
#
#   journal_log_test.sh PATH-TO-leitch-routerd PATH-TO-no_sanitizer_report.sh
set -euo pipefail

routerd=$1
check=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
stamp='^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} '

run() {  # run LOGFILE [ENV...]: starts, waits for "listening on", stops with SIGTERM
  local log=$1
  shift
  : >"$log"
  env "$@" "$routerd" --listen 127.0.0.1:0 >"$dir/out" 2>>"$log" &
  local pid=$!
  for _ in $(seq 100); do
    grep -q '^listening on' "$dir/out" && break
    sleep 0.05
  done
  kill -TERM "$pid"
  local status=0
  wait "$pid" || status=$?
  bash "$check" "$log"
  [ "$status" -eq 0 ] || { cat "$log"; echo "exit status $status"; exit 1; }
}

run "$dir/plain.log"
grep -qE "${stamp}router from built-in default" "$dir/plain.log" || { cat "$dir/plain.log"; exit 1; }

: >"$dir/journal.log"
run "$dir/journal.log" JOURNAL_STREAM="$(stat -c '%d:%i' "$dir/journal.log")"
grep -q '^router from built-in default' "$dir/journal.log" || { cat "$dir/journal.log"; exit 1; }
grep -q '^stopped$' "$dir/journal.log" || { cat "$dir/journal.log"; exit 1; }

# A JOURNAL_STREAM that names another file (standard error redirected by hand).
run "$dir/other.log" JOURNAL_STREAM=1:1
grep -qE "${stamp}router from built-in default" "$dir/other.log" || { cat "$dir/other.log"; exit 1; }
echo "time stamps only where the journal does not add them"
