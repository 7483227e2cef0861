#!/usr/bin/env bash
# The main job on a fresh Debian machine: installs what is missing, builds,
# and reports where the plug-in is.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target leitch_passthrough
echo "plug-in built: $(pwd)/build/default/libleitch_passthrough.so"
