#!/usr/bin/env bash
# The main job on a fresh Debian machine: installs what is missing, builds,
# and starts the router simulator leitch-routerd with its built-in router
# (two levels of 32 x 32) on 127.0.0.1:2323, with its web view on
# http://127.0.0.1:8080/ (the address is printed when it is ready). Extra arguments go to the
# simulator, e.g.  scripts/run.sh --verbose  or  scripts/run.sh --config config/leitch-routerd.toml
#
# Then, from another terminal:  telnet 127.0.0.1 2323   and type  @ ?  then  @ X:0/5,3
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target leitch_passthrough leitch-routerd
exec build/default/sim/leitch-routerd "$@"
