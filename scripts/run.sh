#!/usr/bin/env bash
# The main job on a fresh Debian machine: installs what is missing, builds,
# and starts the router simulator leitch-routerd with its built-in router
# (two levels of 32 x 32) on 127.0.0.1:2323, with its web view on
# http://127.0.0.1:8080/ (the address is printed when it is ready). Extra arguments go to the
# simulator, e.g.  scripts/run.sh --verbose  or  scripts/run.sh --config config/leitch-routerd.toml
#
# The router's state (crosspoints, locks, saved routings) outlives a restart:
# it is kept in build/default/leitch-routerd-state.db unless the arguments
# name another file (--state FILE), ask for none (--no-state, taken by this
# script), or name a configuration file, whose [state] section decides (its
# router may not be the built-in one the default file was made for), or a real
# router (--backend).
#
# Then, from another terminal:  telnet 127.0.0.1 2323   and type  @ ?  then  @ X:0/5,3
set -euo pipefail
cd "$(dirname "$0")/.."

default_state=build/default/leitch-routerd-state.db
args=()
for arg in "$@"; do
  case $arg in
    --no-state) default_state=""; continue ;;
    -s | -s?* | --state | --state=* | -c | -c?* | --config | --config=* | --backend | --backend=*) default_state="" ;;
  esac
  args+=("$arg")
done
[ -n "$default_state" ] && args=(--state "$default_state" "${args[@]}")

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target leitch_passthrough leitch-routerd
exec build/default/sim/leitch-routerd "${args[@]}"
