#!/usr/bin/env bash
# The packages built for another architecture (scripts/package.sh --arch),
# unpacked and run under qemu-user: the packaged plug-in exports exactly
# create and destroy (the cross nm), and the packaged leitch-routerd, with the
# packaged configuration and plug-in, answers a take over TCP. The simulator's
# shared libraries come from the multiarch packages its build needed.
#
#   scripts/emulated-package-test.sh arm64 build/packages-arm64
set -euo pipefail
cd "$(dirname "$0")/.."

arch=$1
packages=$(realpath "$2")
triplet=$(dpkg-architecture -qDEB_HOST_MULTIARCH -a"$arch" 2>/dev/null)
cpu=$(dpkg-architecture -qDEB_HOST_GNU_CPU -a"$arch" 2>/dev/null)
case "$cpu" in arm) qemu=qemu-arm ;; *) qemu=qemu-$cpu ;; esac

root=$PWD/build/unpacked-$arch
rm -rf "$root" && mkdir -p "$root"
for deb in "$packages"/leitch-passthrough_*_"$arch".deb "$packages"/leitch-routerd_*_"$arch".deb; do
  dpkg-deb -x "$deb" "$root"
done
plugin=$root/usr/lib/$triplet/leitch-passthrough/libleitch_passthrough.so
file -L "$root/usr/bin/leitch-routerd" "$plugin" | sed "s|$root||"

exports=$("$triplet-nm" -D --defined-only "$plugin" | awk '{print $NF}' | sort | tr '\n' ' ')
echo "exports: $exports"
[ "$exports" = "create destroy " ] || { echo "the $arch plug-in exports more than create and destroy" >&2; exit 1; }

scripts/routerd-smoke.sh "$PWD/build/emulated-routerd-$arch.log" \
  "$qemu" -L "/usr/$triplet" "$root/usr/bin/leitch-routerd" \
  --config "$root/etc/leitch-routerd/leitch-routerd.toml" --plugin "$plugin" --listen 127.0.0.1:0 --http off
echo "the $arch packages work under $qemu"
