# Sourced by the benchmark scripts: starting and stopping a server under test.
# Needs $work, a scratch directory.

# Starts a server, waits for "listening on HOST:PORT", sets server_pid and port.
start() {
  "$@" >"$work/out" 2>"$work/err" &
  server_pid=$!
  for _ in $(seq 200); do
    grep -q '^listening on ' "$work/out" 2>/dev/null && break
    sleep 0.05
  done
  port=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$work/out")
  [ -n "$port" ] || { cat "$work/err"; exit 1; }
}

stop() {
  kill "$server_pid"
  wait "$server_pid" 2>/dev/null || true
  server_pid=
}
