#!/usr/bin/env bash
# Installs what building, testing and benchmarking zelSocket needs on Debian 12.
# Runs apt-get as root, or through sudo otherwise; does nothing when all is there.
#
#   tools/deps.sh           what the Linux build, tests and benchmarks need
#   tools/deps.sh windows   what the cross build for Windows x64 and its run under Wine need
set -euo pipefail

if [ "${1:-}" = windows ]; then
packages=(
  build-essential cmake git
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix   # cross compilers with std::thread
  wine64                           # runs the Windows tests and the demo
  dpkg-dev                         # apt-get source: libuv's own Debian source for the cross build
  googletest                       # GoogleTest's source, built for Windows
  python3 dnsmasq-base             # Linux peers the Windows tests talk to over loopback
)
else
packages=(
  build-essential cmake pkg-config git
  libuv1-dev                       # the event loop underneath everything
  libgtest-dev libgmock-dev        # unit tests
  libbenchmark-dev                 # bench/
  clang libclang-rt-dev            # libFuzzer targets
  python3                          # a real HTTP server for the TCP tests
  dnsmasq-base                     # a real DNS server for the channel tests
  iproute2                         # network namespaces in tests
)
fi

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
