#!/usr/bin/env bash
# Installs dependencies, checks the formatting, builds (Release, as users build it) and runs the whole suite, then
# builds and runs it again under ThreadSanitizer and under AddressSanitizer + UndefinedBehaviorSanitizer,
# cross-built for Linux arm64 under qemu and for Windows x64 under wine; then fuzzes each decoder for 60 seconds (scripts/fuzz.sh).
set -uo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
status=0

bash scripts/bootstrap test || exit 1

# run_suite DIR [TARGETS] [EXCLUDED_LABELS] -- CMAKE_ARGS...
run_suite() {
  local dir=$1 targets=$2 excluded=$3; shift 4
  echo "=== configure $dir ($*) at ${SECONDS}s"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" "$@" >"$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  echo "=== build $dir"
  local target_args=()
  # shellcheck disable=SC2206 # the list is split on purpose
  [ -n "$targets" ] && target_args=(--target $targets)
  cmake --build "$dir" -j "$jobs" "${target_args[@]}" 2>&1 | tail -n 40
  [ "${PIPESTATUS[0]}" -eq 0 ] || return 1
  echo "=== test $dir at ${SECONDS}s"
  local label_args=()
  [ -n "$excluded" ] && label_args=(-LE "$excluded")
  local result=0
  (cd "$dir" && ctest --output-on-failure --no-tests=error -j "$jobs" --timeout 300 "${label_args[@]}") || result=1
  # The fault scenarios print what they measured; ctest keeps it only in its log.
  grep -h '^FIGURE' "$dir/Testing/Temporary/LastTest.log" 2>/dev/null | sed "s|^|$dir: |"
  return $result
}

# Three builds of the same sources: a compiler cache makes repeated runs cheap.
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  # Paths relative to the checkout, so another clone of it hits the same cache.
  export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}" CCACHE_NOHASHDIR="${CCACHE_NOHASHDIR:-1}"
fi

echo "=== format check"
bash scripts/format.sh --check || status=1

mkdir -p build
# The benchmarks are built (not run) so they keep compiling with the library.
run_suite build/release "" "" -- -DCMAKE_BUILD_TYPE=Release -DTAVRIN_BUILD_BENCHMARKS=ON || status=1

export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp"
run_suite build/tsan "" "" -- -DTAVRIN_SANITIZE=thread || status=1

ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build/asan "" "" -- -DTAVRIN_SANITIZE=address || status=1

# Linux arm64, cross-built and run under user-mode emulation. The fault
# scenarios (network namespaces, SIGKILL rounds, minutes each natively) and the
# browser test (Chromium is the host's) run natively only.
if bash scripts/bootstrap arm64; then
  run_suite build/arm64 "" "reliability|browser" -- -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/aarch64-linux-gnu.cmake" || status=1
else
  status=1
fi

# Windows x64, cross-built with mingw-w64 and run under wine. What needs Linux
# itself (namespaces, fork, the collector, the HTTPS loopback server) stays
# native: tests/CMakeLists.txt names it.
if bash scripts/bootstrap windows; then
  WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" \
    run_suite build/windows "" "" -- -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/mingw-w64-x86_64.cmake" \
    -DTAVRIN_HOST_COLLECTOR="$PWD/build/release/tools/collector/tavrin-collector" || status=1
else
  status=1
fi

TAVRIN_FUZZ_LAUNCHER="${launcher[*]}" bash scripts/fuzz.sh || status=1

echo "=== finished at ${SECONDS}s"
if [ $status -ne 0 ]; then echo "test.sh: FAILED"; else echo "test.sh: all suites passed"; fi
exit $status
