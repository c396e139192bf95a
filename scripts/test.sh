#!/usr/bin/env bash
# Installs dependencies, builds and runs the whole suite, then builds and runs it
# again under AddressSanitizer + UndefinedBehaviorSanitizer.
# Set TAVRIN_TSAN=1 to also run the ThreadSanitizer suite.
set -uo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
status=0

bash scripts/bootstrap || exit 1

run_suite() {
  local dir=$1; shift
  echo "=== configure $dir ($*)"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >"$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  echo "=== build $dir"
  cmake --build "$dir" -j "$jobs" 2>&1 | tail -n 40
  [ "${PIPESTATUS[0]}" -eq 0 ] || return 1
  echo "=== test $dir"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300)
}

mkdir -p build
run_suite build/release || status=1
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build/asan -DTAVRIN_SANITIZE=address || status=1
if [ "${TAVRIN_TSAN:-0}" = "1" ]; then
  TSAN_OPTIONS=halt_on_error=1 run_suite build/tsan -DTAVRIN_SANITIZE=thread || status=1
fi

if [ $status -ne 0 ]; then echo "test.sh: FAILED"; else echo "test.sh: all suites passed"; fi
exit $status
