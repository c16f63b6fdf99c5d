#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds the README's
# example against the installed package twice, with find_package and with
# pkg-config, and runs each.  The example includes the umbrella header, so
# every installed header must compile; the main build compiles the other
# examples already.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
# The installed tool finds the library on its own, wherever the prefix is.
env -u LD_LIBRARY_PATH "$work/prefix/bin/udp_request" --short --count 3 | grep -qE "^answered [0-9]+, timed out"

cmake -S "$source_dir/tests/package" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DEXAMPLES_DIR="$source_dir/examples" >/dev/null
cmake --build "$work/consumer" -j2 >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer/readme_example" | grep -qx "answer=42"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
c++ -std=c++17 -Wall -Wextra -Werror "$source_dir/examples/readme_example.cc" -o "$work/readme_example.pc" \
  $(pkg-config --cflags --libs zelsocket)
LD_LIBRARY_PATH="$work/prefix/lib" "$work/readme_example.pc" | grep -qx "answer=42"

# Only the public API is exported.
if nm -D --defined-only "$work/prefix/lib/libzelsocket.so" | grep -E ' (T|D|B) ' | c++filt |
    grep -vE 'zelsocket::|vtable for|typeinfo|VTT|_init|_fini|^ *$' | grep -q .; then
  echo "unexpected exported symbols:" >&2
  nm -D --defined-only "$work/prefix/lib/libzelsocket.so" | c++filt | grep -vE 'zelsocket::' >&2
  exit 1
fi
if nm -D --defined-only "$work/prefix/lib/libzelsocket.so" | c++filt | grep -E 'IOLoopImpl|AsyncImpl|LogWrite|platform::' >&2; then
  echo "internal symbols are exported" >&2
  exit 1
fi
echo "package: find_package and pkg-config consumers built and ran"
