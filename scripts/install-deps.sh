#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with.
# Skips everything when they are all present already.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config        # compiler and build
  libboost-dev libboost-system-dev        # boost::shared_ptr of the contract; Boost.Asio
  libgtest-dev libgmock-dev               # tests
  libbenchmark-dev                        # benchmarks
  libtomlplusplus-dev libcli11-dev        # simulator configuration file and command line
  libsqlite3-dev                          # the simulator's durable state
  clang libclang-rt-14-dev                # libFuzzer and sanitizer runtimes
  netcat-openbsd socat                    # real third-party clients in the simulator tests
  valgrind                                # instruction counts for the benchmark table
  nlohmann-json3-dev                      # the web view's HTTP API (JSON)
  chromium chromium-driver python3-selenium  # the web view's tests in a real browser
)

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
