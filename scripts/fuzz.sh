#!/usr/bin/env bash
# Builds the libFuzzer targets of the decoders (clang, AddressSanitizer +
# UndefinedBehaviorSanitizer) in build/fuzz and runs each for [seconds]
# (default $TAVRIN_FUZZ_SECONDS or 60), two at a time, each on a scratch copy
# of its seed corpus in tests/fuzz/corpus/. Exits non-zero on any crash,
# leak, timeout or out-of-memory; artifacts stay in build/fuzz/fuzz-runs/.
set -uo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-${TAVRIN_FUZZ_SECONDS:-60}}
dir=build/fuzz
mkdir -p build

echo "=== configure $dir (clang++, libFuzzer)"
# shellcheck disable=SC2086 # an optional -D argument
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ ${TAVRIN_FUZZ_LAUNCHER:-} -DTAVRIN_BUILD_FUZZERS=ON \
  -DTAVRIN_BUILD_TESTS=OFF -DTAVRIN_BUILD_TOOLS=OFF -DTAVRIN_BUILD_EXAMPLES=OFF -DTAVRIN_BUILD_BENCHMARKS=OFF \
  >"$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }

echo "=== build $dir"
cmake --build "$dir" -j 2 --target tavrin_fuzzers 2>&1 | tail -n 40
[ "${PIPESTATUS[0]}" -eq 0 ] || exit 1

echo "=== fuzz each target for ${seconds}s"
rm -f "$dir"/fuzz-runs/*.result
(cd "$dir" && TAVRIN_FUZZ_SECONDS=$seconds UBSAN_OPTIONS=print_stacktrace=1 \
  ctest -L fuzz -j 2 --no-tests=error --output-on-failure)
status=$?
cat "$dir"/fuzz-runs/*.result 2>/dev/null
[ $status -eq 0 ] && echo "fuzz.sh: no crash, leak, timeout or OOM" || echo "fuzz.sh: FAILED"
exit $status
