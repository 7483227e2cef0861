#!/usr/bin/env bash
# The packaged service under a real systemd: a fresh Debian root (the install
# test's debootstrap copy) with systemd and the packages installed is booted
# with systemd-nspawn, sharing this machine's network. Checks that
# leitch-routerd.service was started at boot with the installed configuration
# (its port moved to a free one), runs as a user of its own in the dialout
# group, answers a take over TCP, logs to the journal without time stamps of
# its own, ignores SIGHUP, and is restarted after it is killed.
#
#   scripts/service-test.sh [PACKAGE_DIR]      default build/packages
# Needs root, systemd-nspawn, and build/install-root.tar (scripts/install-test.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

packages=$(realpath "${1:-build/packages}")
root=$PWD/build/service-root
[ -e build/install-root.tar ] || { echo "run scripts/install-test.sh first" >&2; exit 1; }

container=""
cleanup() {
  mountpoint -q "$root/proc" && umount "$root/proc"
  if [ -n "$container" ] && kill -0 "$container" 2>/dev/null; then
    kill -TERM "$container"  # systemd-nspawn shuts the container down in order
    for _ in $(seq 300); do kill -0 "$container" 2>/dev/null || break; sleep 0.1; done
    # A second SIGTERM ends it at once.
    kill -TERM "$container" 2>/dev/null && sleep 1
  fi
  true
}
trap cleanup EXIT

echo "=== a Debian root with systemd and the packages"
rm -rf "$root" && mkdir -p "$root" && tar -C "$root" -xf build/install-root.tar
cp /etc/resolv.conf "$root/etc/resolv.conf"
mkdir -p "$root/tmp/debs"
cp "$packages"/leitch-passthrough_*.deb "$packages"/leitch-routerd_*.deb "$root/tmp/debs/"
mount -t proc proc "$root/proc"
chroot "$root" env DEBIAN_FRONTEND=noninteractive sh -c \
  'apt-get update -q && apt-get install -y -q --no-install-recommends systemd ./tmp/debs/*.deb' \
  >build/service-apt.log 2>&1 || { cat build/service-apt.log >&2; exit 1; }
umount "$root/proc"

listening() { [ -n "$(ss -Htln "sport = :$1")" ]; }

# The container shares this machine's loopback: move the configured ports (the
# Leitch clients' and the web view's) to free ones.
free_ports=()
for candidate in $(shuf -i 20000-29999 -n 50); do
  listening "$candidate" || free_ports+=("$candidate")
done
[ ${#free_ports[@]} -ge 3 ] || { echo "no free ports" >&2; exit 1; }
port=${free_ports[0]}
http_port=${free_ports[1]}
telnet_port=${free_ports[2]}
config=$root/etc/leitch-routerd/leitch-routerd.toml
sed -i -e "s/^address = \"127.0.0.1:2323\"/address = \"127.0.0.1:$port\"/" \
  -e "s/^address = \"127.0.0.1:2324\"/address = \"127.0.0.1:$telnet_port\"/" "$config"
grep -q "127.0.0.1:$port" "$config" && grep -q "127.0.0.1:$telnet_port" "$config"
printf '\n[http]\nlisten = "127.0.0.1:%s"\n' "$http_port" >>"$config"

echo "=== boot with systemd-nspawn"
systemd-nspawn -D "$root" --boot --register=no --keep-unit -q --console=pipe >build/service-boot.log 2>&1 &
container=$!
in_container() { nsenter -t "$leader" -a "$@"; }
leader=""
for _ in $(seq 300); do
  leader=$(ps -o pid= --ppid "$container" | head -n 1 | tr -d ' ' || true)  # none until it has started
  [ -n "$leader" ] && in_container systemctl is-active -q leitch-routerd.service 2>/dev/null && break
  kill -0 "$container" 2>/dev/null || { cat build/service-boot.log >&2; exit 1; }
  sleep 0.1
done
in_container systemctl status --no-pager leitch-routerd.service | sed 's/^/  /' || true
in_container systemctl is-active -q leitch-routerd.service
for _ in $(seq 100); do listening "$port" && break; sleep 0.1; done

main=$(in_container systemctl show -P MainPID leitch-routerd.service)
status=$(in_container cat "/proc/$main/status")
uid=$(awk '/^Uid:/ {print $2}' <<<"$status")
groups=$(sed -n 's/^Groups:\s*//p' <<<"$status")
dialout=$(in_container getent group dialout | cut -d: -f3)
echo "  runs as uid $uid, groups $groups (dialout is $dialout)"
# systemd gives dynamic users the uids 61184 to 65519.
[ "$uid" -ge 61184 ] && [ "$uid" -le 65519 ] || { echo "not a dynamic user: uid $uid" >&2; exit 1; }
[[ " $groups " == *" $dialout "* ]] || { echo "not in the dialout group" >&2; exit 1; }

echo "=== a take over TCP, and the web view"
scripts/routerd-smoke.sh --take "$port"
exec 3<>"/dev/tcp/127.0.0.1/$http_port"
printf 'GET / HTTP/1.1\r\nHost: 127.0.0.1:%s\r\nConnection: close\r\n\r\n' "$http_port" >&3
page=$(timeout 3 cat <&3 || true)
exec 3>&-
echo "  web view: ${page%%$'\r'*}"
[[ $page == "HTTP/1.1 200"* ]] || { echo "the web view did not answer" >&2; exit 1; }

echo "=== the telnet port asks for a login"
exec 3<>"/dev/tcp/127.0.0.1/$telnet_port"
prompt=$(timeout 3 head -c 7 <&3 || true)
exec 3>&-
echo "  telnet port: \"$prompt\""
[ "$prompt" = "login: " ] || { echo "no login prompt on the telnet port" >&2; exit 1; }

echo "=== SIGHUP is ignored; a killed simulator is restarted"
in_container systemctl kill -s HUP leitch-routerd.service
sleep 0.5
in_container systemctl kill -s KILL leitch-routerd.service
for _ in $(seq 100); do
  [ "$(in_container systemctl show -P NRestarts leitch-routerd.service)" = 1 ] &&
    in_container systemctl is-active -q leitch-routerd.service && listening "$port" && break
  sleep 0.1
done
[ "$(in_container systemctl show -P NRestarts leitch-routerd.service)" = 1 ] || { echo "not restarted" >&2; exit 1; }
scripts/routerd-smoke.sh --take "$port"

echo "=== the journal"
journal=$(in_container journalctl -q -u leitch-routerd.service -o cat --no-pager)
printf '%s\n' "$journal" | sed 's/^/  /'
grep -q '^router from /etc/leitch-routerd/leitch-routerd.toml' <<<"$journal" ||
  { echo "no start-up line without a time stamp" >&2; exit 1; }
grep -q 'received SIGHUP, ignored' <<<"$journal" || { echo "SIGHUP not logged" >&2; exit 1; }
echo "service test passed"
