#!/usr/bin/env bash
# The Windows side of the package test: installs the cross build into a scratch
# prefix, builds every example against it with MinGW through find_package, and
# runs the README's example and the installed udp_request under Wine, each
# finding its DLLs beside it as on Windows.
#
#   run_windows.sh BUILD_DIR SOURCE_DIR DEPS_PREFIX      (WINE: the wine binary)
set -euo pipefail
build_dir=$1
source_dir=$2
deps=$3
wine=${WINE:-/usr/lib/wine/wine64}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
for f in libzelsocket.dll libuv.dll udp_request.exe libstdc++-6.dll; do
  [ -f "$work/prefix/bin/$f" ] || { echo "package: bin/$f is missing" >&2; exit 1; }
done

cmake -S "$source_dir/tests/package" -B "$work/consumer" \
  -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/toolchains/mingw-w64-x86_64.cmake" \
  -DCMAKE_PREFIX_PATH="$work/prefix;$deps" -DEXAMPLES_DIR="$source_dir/examples" >/dev/null
cmake --build "$work/consumer" -j2 >/dev/null
# A program is shipped beside the DLLs it loads.
cp "$work/consumer/readme_example.exe" "$work/prefix/bin/"
"$wine" "$work/prefix/bin/readme_example.exe" 2>&1 | tr -d '\r' | grep -qx "answer=42"
"$wine" "$work/prefix/bin/udp_request.exe" --short --count 5 2>&1 | tr -d '\r' | grep -E "^answered [0-9]+, timed out"

# Only the public API is exported.
exports=$(x86_64-w64-mingw32-objdump -p "$work/prefix/bin/libzelsocket.dll" |
  sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | sed -n 's/^\s*\[ *[0-9]*\] //p')
[ -n "$exports" ] || { echo "package: the DLL exports nothing" >&2; exit 1; }
if echo "$exports" | x86_64-w64-mingw32-c++filt | grep -vE 'zelsocket::' | grep -q .; then
  echo "package: unexpected exported symbols:" >&2
  echo "$exports" | x86_64-w64-mingw32-c++filt | grep -vE 'zelsocket::' >&2
  exit 1
fi
if echo "$exports" | x86_64-w64-mingw32-c++filt | grep -E 'IOLoopImpl|AsyncImpl|LogWrite|platform::' >&2; then
  echo "package: internal symbols are exported" >&2
  exit 1
fi
echo "package: $(echo "$exports" | wc -l) exports, the MinGW consumer built and ran"
