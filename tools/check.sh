#!/usr/bin/env bash
# Builds and runs the whole test suite three times: a normal build, under
# AddressSanitizer + UndefinedBehaviorSanitizer, and under ThreadSanitizer; then
# runs each libFuzzer target briefly; then cross-builds for Windows x64 and runs
# the suite, the demo and the package test under Wine.  Any failure or sanitizer
# report fails it.
#
#   tools/check.sh                 everything
#   tools/check.sh normal asan     only these trees (normal, asan, tsan, fuzz, windows)
#   FUZZ_SECONDS=300 tools/check.sh fuzz
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${JOBS:-$(nproc)}
fuzz_seconds=${FUZZ_SECONDS:-30}
trees=("$@")
[ ${#trees[@]} -gt 0 ] || trees=(normal asan tsan fuzz windows)

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:halt_on_error=1:detect_stack_use_after_return=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

passed=0
failed=0

run_suite() {
  local name=$1; shift
  local dir=build/check-$name
  echo "== $name: configure and build"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELSOCKET_DCHECK=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "== $name: test"
  local log=$dir/ctest.log
  local rc=0
  (cd "$dir" && ctest -j"$jobs" --output-on-failure --timeout 300) >"$log" 2>&1 || rc=$?
  grep -vE "^(UvLoop|IOLoopImpl)" "$log" | tail -25
  local n
  n=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\2 \1/p' "$log" | tail -1)
  if [ -n "$n" ]; then
    set -- $n
    passed=$((passed + $1 - $2))
    failed=$((failed + $2))
  elif [ "$rc" -ne 0 ]; then
    failed=$((failed + 1))
  fi
}

run_fuzz() {
  local dir=build/check-fuzz
  local targets
  targets=$(ls tests/fuzz/*_fuzz.cc 2>/dev/null || true)
  if [ -z "$targets" ]; then
    echo "== fuzz: no targets"
    return
  fi
  echo "== fuzz: configure and build (clang)"
  CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELSOCKET_DCHECK=ON \
    -DZELSOCKET_BUILD_FUZZ=ON -DZELSOCKET_BUILD_TESTS=OFF -DZELSOCKET_BUILD_EXAMPLES=OFF \
    -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined" >/dev/null
  cmake --build "$dir" -j"$jobs"
  for src in $targets; do
    local name corpus scratch
    name=$(basename "$src" .cc)
    corpus=tests/fuzz/corpus/${name%_fuzz}
    scratch=$(mktemp -d)
    echo "== fuzz: $name for ${fuzz_seconds}s"
    # New inputs go to a scratch folder; the committed corpus is only read.
    if "$dir/tests/fuzz/$name" -max_total_time="$fuzz_seconds" -print_final_stats=1 "$scratch" "$corpus" \
        2>"$dir/$name.log"; then
      passed=$((passed + 1))
      grep -E "stat::number_of_executed_units|Done [0-9]+ runs" "$dir/$name.log" | tail -2 || true
    else
      failed=$((failed + 1))
      tail -40 "$dir/$name.log"
    fi
    rm -rf "$scratch"
  done
}

# Counts one Windows program's results: its GoogleTest summary when it printed
# one, else its exit status as one result.
count_windows_run() {
  local log=$1 rc=$2 p f
  p=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\{0,1\}\..*/\1/p' "$log" | tail -1)
  f=$(sed -n 's/^\[  FAILED  \] \([0-9]*\) tests\{0,1\}, listed below.*/\1/p' "$log" | tail -1)
  if [ -n "$p" ]; then
    passed=$((passed + p))
    failed=$((failed + ${f:-0}))
    [ "$rc" -eq 0 ] || [ -n "$f" ] || failed=$((failed + 1))
  elif [ "$rc" -eq 0 ]; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
  fi
}

run_windows() {
  local dir=build/check-windows deps
  echo "== windows: dependencies"
  tools/deps.sh windows
  local start=$SECONDS
  deps=$(tools/windows-deps.sh | tail -1)
  echo "== windows: libuv and GoogleTest for Windows in $deps ($((SECONDS - start)) s)"
  start=$SECONDS
  cmake -S . -B "$dir" --no-warn-unused-cli -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-w64-x86_64.cmake \
    -DCMAKE_PREFIX_PATH="$deps" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELSOCKET_DCHECK=ON >/dev/null
  # The runs below go by the executables in bin/: drop those an older tree
  # built for tests or fuzz targets that are gone, so that only this build's run.
  rm -f "$dir"/bin/*.exe
  cmake --build "$dir" -j"$jobs"
  echo "== windows: library, tests and examples built in $((SECONDS - start)) s"

  local wine=/usr/lib/wine/wine64
  export WINEPREFIX=$PWD/$dir/wineprefix WINEDEBUG=-all
  # The first start creates the prefix; later ones reuse it and its server.
  "$wine" cmd /c exit >/dev/null 2>&1 || true

  # One Wine process per executable: starting Wine costs far more than a case.
  local exe name log rc
  for exe in "$dir"/bin/zelsocket_*_tests.exe; do
    name=$(basename "$exe" .exe)
    log=$dir/$name.log
    echo "== windows: $name"
    rc=0
    timeout 900 "$wine" "$exe" >"$log" 2>&1 || rc=$?
    # Counts, failures, and each skip with its reason (the line after "Skipped").
    tr -d '\r' <"$log" | grep -E -A1 "^\[  (PASSED|FAILED|SKIPPED) |: Failure$|: Skipped$" | grep -v "^--$" | head -40 || true
    count_windows_run "$log" "$rc"
  done
  for exe in "$dir"/bin/*_fuzz_replay.exe; do
    [ -e "$exe" ] || continue
    name=$(basename "$exe" _fuzz_replay.exe)
    log=$dir/$name.replay.log
    rc=0
    timeout 300 "$wine" "$exe" "Z:$PWD/tests/fuzz/corpus/$name" >"$log" 2>&1 || rc=$?
    echo "== windows: $name corpus: $(grep replayed "$log" || echo "rc=$rc")"
    count_windows_run "$log" "$rc"
  done

  echo "== windows: soak check"
  log=$dir/soak.log
  rc=0
  timeout 300 "$wine" "$dir/bin/zelsocket_soak_check.exe" --requests 20000 --report-every 5000 >"$log" 2>&1 || rc=$?
  tr -d '\r' <"$log" | tail -3
  count_windows_run "$log" "$rc"

  echo "== windows: udp_request.exe --short"
  log=$dir/udp_request.log
  rc=0
  timeout 120 "$wine" "$dir/bin/udp_request.exe" --short >"$log" 2>&1 || rc=$?
  if [ "$rc" -eq 0 ] && grep -E "^answered [0-9]+, timed out" "$log"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    tail -20 "$log"
  fi

  echo "== windows: package"
  rc=0
  WINE="$wine" bash tests/package/run_windows.sh "$dir" "$PWD" "$deps" >"$dir/package.log" 2>&1 || rc=$?
  tail -5 "$dir/package.log"
  count_windows_run "$dir/package.log" "$rc"
}

for tree in "${trees[@]}"; do
  case $tree in
    normal) run_suite normal ;;
    asan) run_suite asan -DZELSOCKET_SANITIZE=address ;;
    tsan) run_suite tsan -DZELSOCKET_SANITIZE=thread ;;
    fuzz) run_fuzz ;;
    windows) run_windows ;;
    *) echo "unknown tree: $tree" >&2; exit 2 ;;
  esac
done

echo "check: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
