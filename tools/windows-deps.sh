#!/usr/bin/env bash
# Builds what the Windows x64 cross build links against and installs it into a
# prefix outside the source tree: libuv from Debian's own source package (the
# same version the Linux build uses) and GoogleTest from /usr/src/googletest.
# Done once; a later run finds the stamp and only prints the prefix.
#
#   tools/windows-deps.sh            prints the prefix on its last line
#   ZELSOCKET_WINDOWS_DEPS=DIR tools/windows-deps.sh
#
# Needs what `tools/deps.sh windows` installs.  The machine's apt configuration
# is left alone: the source entry lives in a private sources list, with its own
# list folder, that only this script's apt-get calls read.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

prefix=${ZELSOCKET_WINDOWS_DEPS:-${XDG_CACHE_HOME:-$HOME/.cache}/zelsocket/mingw-w64-x86_64}
toolchain=$root/cmake/toolchains/mingw-w64-x86_64.cmake
jobs=${JOBS:-2}
stamp=$prefix/.complete

if [ -f "$stamp" ]; then
  echo "$prefix"
  exit 0
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$prefix"

# libuv: the source of the installed libuv1, from the suites the machine uses.
. /etc/os-release
suite=${VERSION_CODENAME:?no VERSION_CODENAME in /etc/os-release}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
{
  echo "deb-src [signed-by=$keyring] http://deb.debian.org/debian $suite main"
  echo "deb-src [signed-by=$keyring] http://deb.debian.org/debian $suite-updates main"
  echo "deb-src [signed-by=$keyring] http://deb.debian.org/debian-security $suite-security main"
} >"$work/sources.list"
mkdir -p "$work/lists/partial"
apt_private=(-o Dir::Etc::sourcelist="$work/sources.list" -o Dir::Etc::sourceparts=/dev/null
             -o Dir::State::Lists="$work/lists" -o APT::Sandbox::User=root)
echo "windows-deps: fetching libuv's Debian source" >&2
apt-get "${apt_private[@]}" -q update >"$work/apt-update.log" 2>&1 || { cat "$work/apt-update.log" >&2; exit 1; }
(cd "$work" && apt-get "${apt_private[@]}" -q source libuv1 >apt-source.log 2>&1) ||
  { cat "$work/apt-source.log" >&2; exit 1; }
libuv_src=$(find "$work" -maxdepth 1 -type d -name 'libuv1-*' | head -1)
[ -n "$libuv_src" ] || { echo "windows-deps: no libuv source unpacked" >&2; exit 1; }

echo "windows-deps: building $(basename "$libuv_src") for Windows x64" >&2
cmake -S "$libuv_src" -B "$work/libuv-build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
  -DLIBUV_BUILD_TESTS=OFF -DLIBUV_BUILD_BENCH=OFF >"$work/libuv-configure.log" ||
  { cat "$work/libuv-configure.log" >&2; exit 1; }
cmake --build "$work/libuv-build" -j"$jobs" >"$work/libuv-build.log" 2>&1 || { tail -40 "$work/libuv-build.log" >&2; exit 1; }
cmake --install "$work/libuv-build" >/dev/null

echo "windows-deps: building GoogleTest for Windows x64" >&2
cmake -S /usr/src/googletest -B "$work/gtest-build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" >"$work/gtest-configure.log" ||
  { cat "$work/gtest-configure.log" >&2; exit 1; }
cmake --build "$work/gtest-build" -j"$jobs" >"$work/gtest-build.log" 2>&1 || { tail -40 "$work/gtest-build.log" >&2; exit 1; }
cmake --install "$work/gtest-build" >/dev/null

touch "$stamp"
echo "$prefix"
