#!/usr/bin/env bash
# Builds the Debian packages leitch-passthrough and leitch-routerd the Debian
# way (dpkg-buildpackage with debhelper), from a copy of the work tree so that
# the tree stays clean, then checks them with lintian. The packages land in
# build/packages/ (or the directory given with --out).
#
#   scripts/package.sh                 for this machine's architecture
#   scripts/package.sh --arch arm64    cross-built, needs the arm64 build
#                                      dependencies (see docs/packaging.md, "ARM")
#
# DEB_BUILD_OPTIONS=nocheck skips the test suite in the package build (CI
# runs it before packaging). Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."

arch=""
out=build/packages
while [ $# -gt 0 ]; do
  case "$1" in
    --arch) arch="$2"; shift 2 ;;
    --out) out="$2"; shift 2 ;;
    *) echo "usage: $0 [--arch ARCH] [--out DIR]" >&2; exit 2 ;;
  esac
done

scripts/install-deps.sh

work=build/package-work${arch:+-$arch}
rm -rf "$work" && mkdir -p "$work/src" "$out"
# What git knows of (tracked, or new and not ignored), as it stands now; in a
# tree unpacked from an archive, everything but the build tree.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  git ls-files -z --cached --others --exclude-standard | xargs -0 tar -cf - | tar -xf - -C "$work/src"
else
  tar --exclude=./build --exclude=./.git -cf - . | tar -xf - -C "$work/src"
fi

args=(-us -uc -b)
if [ -n "$arch" ] && [ "$arch" != "$(dpkg --print-architecture)" ]; then
  # The tests cannot run on this machine, so their build dependencies are not needed.
  args+=(-a "$arch" -Pcross,nocheck)
  export DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:+$DEB_BUILD_OPTIONS }nocheck"
fi
(cd "$work/src" && dpkg-buildpackage "${args[@]}")

# dpkg-buildpackage writes next to the source directory.
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$out"/
changes=$(ls -t "$out"/*.changes | head -n 1)
echo "=== lintian $(basename "$changes")"
# Errors fail the build; warnings are printed (each one is explained in docs/packaging.md, "lintian").
lintian --fail-on error --display-info --tag-display-limit 0 "$changes"
echo "packages in $out:"
ls -1 "$out"/*.deb
