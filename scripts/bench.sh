#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs each one.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap test
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DTAVRIN_BUILD_TESTS=OFF -DTAVRIN_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build/bench -j "$(nproc)"
for b in build/bench/bench/*_bench; do
  [ -x "$b" ] || continue
  echo "=== $(basename "$b")"
  "$b" --benchmark_min_time=0.2 "$@"
done
