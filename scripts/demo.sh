#!/usr/bin/env bash
# One command: installs what is missing, builds in Release, then (through
# scripts/shop_session.sh) starts a local collector over HTTPS on a free
# loopback port, runs the example shop against it and prints what arrived.
# Then the live debug view stays up until Ctrl-C (unless --no-wait is given
# or standard input is not a terminal). With --windows the shop is built for
# Windows with mingw-w64 and runs under wine against the same collector.
set -euo pipefail
cd "$(dirname "$0")/.."

wait_for_user=1 windows=0
for arg in "$@"; do
  case "$arg" in
    --no-wait) wait_for_user=0 ;;
    --windows) windows=1 ;;
    *) echo "usage: bash scripts/demo.sh [--no-wait] [--windows]" >&2; exit 2 ;;
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
shop="$build/examples/shop/tavrin-shop-example"
if [ "$windows" -eq 1 ]; then
  # The same shop as a Windows program (mingw-w64), run under wine against
  # the Linux collector.
  bash scripts/bootstrap windows
  windows_build=${TAVRIN_DEMO_WINDOWS_BUILD:-build/demo-windows}
  echo "=== building the Windows shop (mingw-w64, Release) in $windows_build"
  cmake -S . -B "$windows_build" -DCMAKE_BUILD_TYPE=Release -DTAVRIN_BUILD_TESTS=OFF -DTAVRIN_BUILD_EXAMPLES=ON \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/mingw-w64-x86_64.cmake" "${launcher[@]}" \
    >"$windows_build.configure.log" 2>&1 || { cat "$windows_build.configure.log"; exit 1; }
  cmake --build "$windows_build" -j "$(nproc)" --target tavrin-shop-example >"$windows_build.build.log" 2>&1 \
    || { tail -n 40 "$windows_build.build.log"; exit 1; }
  shop="$windows_build/examples/shop/tavrin-shop-example.exe"
  export TAVRIN_SHOP_EMULATOR=/usr/lib/wine/wine64 WINEDEBUG=${WINEDEBUG:--all}
fi
exec bash scripts/shop_session.sh "$build/tools/collector/tavrin-collector" "$shop" "${args[@]}"
