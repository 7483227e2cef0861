#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with.
# Skips everything when they are all present already.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config        # compiler and build
  build-essential                         # what dpkg-buildpackage checks for before building a package
  git iproute2                            # scripts/package.sh lists the sources with git; the service test calls ss
  libboost-dev libboost-system-dev        # boost::shared_ptr of the contract; Boost.Asio
  libgtest-dev libgmock-dev               # tests
  libbenchmark-dev                        # benchmarks
  libtomlplusplus-dev libcli11-dev        # simulator configuration file and command line
  libsqlite3-dev                          # the simulator's durable state
  libtelnet-dev                           # telnet listeners: option negotiation, IAC escapes
  clang libclang-rt-14-dev                # libFuzzer and sanitizer runtimes
  netcat-openbsd socat                    # real third-party clients in the simulator tests
  telnet                                  # a real telnet client for the telnet and login tests
  valgrind                                # instruction counts for the benchmark table
  nlohmann-json3-dev                      # the web view's HTTP API (JSON)
  chromium chromium-driver python3-selenium  # the web view's tests in a real browser
  dpkg-dev debhelper lintian scdoc        # Debian packages, their checks, the man page
  debootstrap systemd-container           # the install test's fresh Debian root, booted for the service test
  systemd                                 # systemd-analyze, which checks the unit (a minimal root has none)
  crossbuild-essential-arm64 crossbuild-essential-armhf qemu-user   # ARM builds, tests under emulation
  libgtest-dev:arm64 libgmock-dev:arm64   # GoogleTest for arm64 (multiarch)
  libboost-dev:arm64 libboost-system-dev:arm64 libtomlplusplus-dev:arm64 libsqlite3-dev:arm64 libtelnet-dev:arm64   # the arm64 packages' build
)

# Node.js runs the Videohub mockup server (scripts/install-videohub-mockup.sh).
# Any node and npm on PATH will do: Debian's are installed only when there are
# none, since a Node.js from elsewhere may carry its own npm and conflict.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  packages+=(nodejs npm)
fi

# arm64 libraries come from Debian's multiarch packages. armhf's GoogleTest is
# built from the sources in /usr/src/googletest instead (scripts/cross-test.sh):
# see docs/packaging.md, "ARM", for why armhf is not added as an architecture.
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  [ "$(id -u)" -eq 0 ] && dpkg --add-architecture arm64 || sudo dpkg --add-architecture arm64
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
"${sudo[@]}" apt-get update
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
