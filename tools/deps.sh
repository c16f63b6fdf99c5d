#!/usr/bin/env bash
# Installs what building, testing and benchmarking zelSocket needs on Debian 12.
# Runs apt-get as root, or through sudo otherwise; does nothing when all is there.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libuv1-dev                       # the event loop underneath everything
  libgtest-dev libgmock-dev        # unit tests
  libbenchmark-dev                 # bench/
  clang libclang-rt-dev            # libFuzzer targets
  python3                          # a real HTTP server for the TCP tests
  dnsmasq-base                     # a real DNS server for the channel tests
  iproute2 nftables                # network namespaces and packet loss in tests
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
