#!/usr/bin/env bash
# One command: installs what is missing, builds in Release, then (through
# scripts/shop_session.sh) starts a local collector over HTTPS on a free
# loopback port, runs the example shop against it and prints what arrived.
# Then the live debug view stays up until Ctrl-C (unless --no-wait is given
# or standard input is not a terminal).
set -euo pipefail
cd "$(dirname "$0")/.."

wait_for_user=1
for arg in "$@"; do
  case "$arg" in
    --no-wait) wait_for_user=0 ;;
    *) echo "usage: bash scripts/demo.sh [--no-wait]" >&2; exit 2 ;;
  esac
done
[ -t 0 ] || wait_for_user=0

bash scripts/bootstrap demo
build=${TAVRIN_DEMO_BUILD:-build/demo}
mkdir -p "$build"
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  # Paths relative to this checkout, so a fresh clone reuses what another
  # clone compiled (the suite runs this script in one).
  export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
fi
echo "=== building (Release) in $build"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTAVRIN_BUILD_TESTS=OFF -DTAVRIN_BUILD_TOOLS=ON \
  -DTAVRIN_BUILD_EXAMPLES=ON "${launcher[@]}" >"$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j "$(nproc)" --target tavrin-collector tavrin-shop-example >"$build.build.log" 2>&1 \
  || { tail -n 40 "$build.build.log"; exit 1; }

args=()
[ "$wait_for_user" -eq 1 ] && args=(--wait)
exec bash scripts/shop_session.sh "$build/tools/collector/tavrin-collector" "$build/examples/shop/tavrin-shop-example" "${args[@]}"
