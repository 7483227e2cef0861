#!/usr/bin/env bash
# Installs the Videohub mockup server from npm (@bitfocusas/mockup-bmd-videohub),
# which some gateway tests drive as a router nobody on this team wrote, into
# build/third-party/videohub-mockup (or the directory given): exactly the tree
# locked in tests/third_party/videohub-mockup/package-lock.json, with `npm ci`.
# Skips the work when that lock is installed there already. Node.js and npm
# come from scripts/install-deps.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

locked=tests/third_party/videohub-mockup
target=${1:-build/third-party/videohub-mockup}

if cmp -s "$locked/package.json" "$target/package.json" &&
   cmp -s "$locked/package-lock.json" "$target/package-lock.json" &&
   [ -f "$target/node_modules/@bitfocusas/mockup-bmd-videohub/package.json" ]; then
  exit 0
fi
if ! command -v npm >/dev/null; then
  echo "npm is missing: scripts/install-deps.sh installs it" >&2
  exit 1
fi

echo "installing the Videohub mockup server into $target"
# Built beside the target and moved in whole: a half-finished install never
# passes the check above.
staging=$target.new
rm -rf "$staging"
mkdir -p "$staging"
cp "$locked/package.json" "$locked/package-lock.json" "$staging/"
# Nothing in the tree needs an install script to work, so none is run.
npm ci --prefix "$staging" --ignore-scripts --no-audit --no-fund
rm -rf "$target"
mv "$staging" "$target"
