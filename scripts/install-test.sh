#!/usr/bin/env bash
# Installs the built packages into a fresh minimal Debian root made with
# debootstrap, starts the installed leitch-routerd there with the installed
# configuration and plug-in (as an unprivileged user), switches a crosspoint
# over TCP and checks the report; then removes the packages and checks that
# only the configuration is left, and that purging removes that too.
#
#   scripts/install-test.sh [PACKAGE_DIR]      default build/packages
#
# LEITCH_DEBIAN_MIRROR names the mirror for debootstrap (default: the first
# one in apt's sources). Needs root (debootstrap, chroot, mounting /proc).
set -euo pipefail
cd "$(dirname "$0")/.."

packages=$(realpath "${1:-build/packages}")
ls "$packages"/leitch-passthrough_*.deb "$packages"/leitch-routerd_*.deb >/dev/null
root=$PWD/build/install-root
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
mirror=${LEITCH_DEBIAN_MIRROR:-$(cat /etc/apt/sources.list.d/*.sources /etc/apt/sources.list 2>/dev/null |
  awk '/^(URIs:|deb) / && $2 !~ /security/ {print $2; exit}' || true)}
mirror=${mirror:-http://deb.debian.org/debian}

in_root() { chroot "$root" env DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 "$@"; }
cleanup() {
  mountpoint -q "$root/proc" && umount "$root/proc" || true
}
trap cleanup EXIT

echo "=== debootstrap $suite from $mirror"
# A pristine copy is kept, so that a second run starts from a fresh root too.
pristine=build/install-root.tar
rm -rf "$root"
if [ ! -e "$pristine" ]; then
  debootstrap --variant=minbase "$suite" "$root" "$mirror" >build/debootstrap.log 2>&1 ||
    { tail -n 20 build/debootstrap.log >&2; echo "debootstrap failed" >&2; exit 1; }
  tar -C "$root" -cf "$pristine.part" . && mv "$pristine.part" "$pristine"
else
  mkdir -p "$root" && tar -C "$root" -xf "$pristine"
fi
cp /etc/resolv.conf "$root/etc/resolv.conf"
mount -t proc proc "$root/proc"
in_root apt-get update -q >/dev/null

# Everything on the root's file system that a package could leave behind.
snapshot() {
  (cd "$root" && find . -xdev \( -path ./proc -o -path ./tmp -o -path ./var/lib/dpkg -o -path ./var/lib/apt \
      -o -path ./var/cache -o -path ./var/log -o -path ./run -o -path ./dev \
      -o -path ./etc/ld.so.cache \) -prune -o -print | sort)
}
snapshot >build/install-before.txt

echo "=== apt-get install ./*.deb"
rm -rf "$root/tmp/debs" && mkdir -p "$root/tmp/debs"
cp "$packages"/leitch-passthrough_*.deb "$packages"/leitch-routerd_*.deb "$root/tmp/debs/"
in_root sh -c 'cd /tmp/debs && apt-get install -y -q --no-install-recommends ./*.deb' >build/install-apt.log 2>&1 ||
  { cat build/install-apt.log >&2; exit 1; }
in_root dpkg -L leitch-passthrough leitch-routerd | grep -E '\.so$|bin/|\.toml$|\.service$|man8'
test "$(in_root dpkg-query -W -f='${Conffiles}' leitch-routerd | awk '{print $1}')" = /etc/leitch-routerd/leitch-routerd.toml

echo "=== the installed leitch-routerd, as user nobody, with the installed configuration"
# Port 0: the machine may already have a simulator on the configured port.
log=$PWD/build/install-routerd.log
scripts/routerd-smoke.sh "$log" chroot --userspec=65534:65534 "$root" /usr/bin/leitch-routerd --listen 127.0.0.1:0 --http off
grep -q 'router from /etc/leitch-routerd/leitch-routerd.toml' "$log"
grep -q "plug-in /usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/leitch-passthrough/libleitch_passthrough.so" "$log"

# Configuration, as Debian keeps it on remove: the conffile, and whether the
# service is enabled (deb-systemd-helper's record and the link it made), so
# that installing again keeps the administrator's choice.
expected_left='./etc/leitch-routerd
./etc/leitch-routerd/leitch-routerd.toml
./etc/systemd/system/multi-user.target.wants/leitch-routerd.service
./var/lib/systemd/deb-systemd-helper-enabled/leitch-routerd.service.dsh-also
./var/lib/systemd/deb-systemd-helper-enabled/multi-user.target.wants/leitch-routerd.service'

echo "=== apt-get remove: only the configuration stays"
in_root apt-get remove -y -q leitch-routerd leitch-passthrough >build/install-apt.log 2>&1
in_root apt-get autoremove --purge -y -q >>build/install-apt.log 2>&1
left=$(comm -13 build/install-before.txt <(snapshot))
printf '%s\n' "$left" | sed 's/^/  left: /'
# The enablement records exist only where deb-systemd-helper is installed.
[ "$(printf '%s\n' "$left" | grep -v -e /systemd/ || true)" = $'./etc/leitch-routerd\n./etc/leitch-routerd/leitch-routerd.toml' ] &&
  [ -z "$(comm -13 <(printf '%s\n' "$expected_left") <(printf '%s\n' "$left"))" ] ||
  { echo "remove left more (or less) than the configuration" >&2; exit 1; }

echo "=== apt-get purge: nothing stays"
in_root apt-get purge -y -q leitch-routerd leitch-passthrough >>build/install-apt.log 2>&1
left=$(comm -3 build/install-before.txt <(snapshot))
[ -z "$left" ] || { printf 'after purge:\n%s\n' "$left" >&2; exit 1; }
echo "install test passed"
