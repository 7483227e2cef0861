#!/usr/bin/env bash
# Checks the packaged systemd unit without a running systemd: unpacks the
# packages into a scratch root beside the machine's own units, then runs
# `systemd-analyze verify` (the unit parses, its program exists) and
# `systemd-analyze security --offline=yes`, which must rate it 2.0 or lower.
#
#   scripts/check-unit.sh [PACKAGE_DIR]      default build/packages
set -euo pipefail
cd "$(dirname "$0")/.."

packages=$(realpath "${1:-build/packages}")
root=$PWD/build/unit-root
rm -rf "$root" && mkdir -p "$root/lib/systemd/system"
# The units the service refers to (sysinit.target, network.target, ...).
cp -a /lib/systemd/system/. "$root/lib/systemd/system/"
for deb in "$packages"/leitch-passthrough_*.deb "$packages"/leitch-routerd_*.deb; do
  dpkg-deb -x "$deb" "$root"
done

echo "=== systemd-analyze verify leitch-routerd.service"
# The man page is compressed in the package; man(1) finding it is not the point here.
systemd-analyze verify --man=no --root="$root" /lib/systemd/system/leitch-routerd.service

echo "=== systemd-analyze security leitch-routerd.service"
report=$(systemd-analyze security --offline=yes --root="$root" leitch-routerd.service)
grep -v '✓' <<<"$report" || true
score=$(printf '%s\n' "$report" | sed -n 's/.*Overall exposure level for leitch-routerd.service: \([0-9.]*\).*/\1/p')
[ -n "$score" ] || { echo "no exposure level in the report" >&2; exit 1; }
awk -v s="$score" 'BEGIN { exit !(s <= 2.0) }' || { echo "exposure $score is above 2.0" >&2; exit 1; }
echo "exposure level $score (at most 2.0)"
