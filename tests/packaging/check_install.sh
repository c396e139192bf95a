#!/usr/bin/env bash
# Installs the built library into a scratch prefix, checks that the installed
# headers are the public API alone and stay light, then builds and runs a
# small consumer twice: through find_package(tavrin) and through pkg-config.
# For a cross build (TAVRIN_CROSS_TOOLCHAIN, TAVRIN_CROSS_CXX and
# TAVRIN_EMULATOR set) the consumers are cross-built against the installed
# tree and run under the emulator, and so is the example shop, twice against
# a collector, as two launches of one install. A Windows build
# (TAVRIN_EMULATOR is wine) runs its shop against the Linux collector named by
# TAVRIN_HOST_COLLECTOR.
set -euo pipefail
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cxx=${TAVRIN_CROSS_CXX:-c++}
# shellcheck disable=SC2206 # flags are words
cross_ldflags=(${TAVRIN_CROSS_LDFLAGS:-})
collector=${TAVRIN_HOST_COLLECTOR:-$build_dir/tools/collector/tavrin-collector}
cmake_cross=()
[ -n "${TAVRIN_CROSS_TOOLCHAIN:-}" ] && cmake_cross=(-DCMAKE_TOOLCHAIN_FILE="$TAVRIN_CROSS_TOOLCHAIN")
# shellcheck disable=SC2206 # a command and its arguments
emulator=(${TAVRIN_EMULATOR:-})
# Windows programs are named *.exe (the compiler adds it).
exe=""
case "${emulator[0]:-}" in *wine*) exe=".exe" ;; esac

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
include_dir="$work/prefix/include"
# A shared library is found where it was installed (the consumers have no rpath).
shared=$(find "$work/prefix" -name 'libtavrin.so.*' -printf '%h\n' | head -n 1)
[ -n "$shared" ] && export LD_LIBRARY_PATH="$shared${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"

# Internal headers and test doubles are not part of the installed tree.
if find "$include_dir/tavrin" -path '*/internal/*' | grep -q .; then
  echo "internal headers were installed:"; find "$include_dir/tavrin" -path '*/internal/*'; exit 1
fi
if grep -rlE 'CapturingSink|ScriptedPathMonitor' "$include_dir/tavrin"; then
  echo "test doubles were installed"; exit 1
fi

# The umbrella header pulls in the standard library only.
echo '#include "tavrin/tavrin.h"' | "$cxx" -std=c++20 -I"$include_dir" -E -x c++ - >"$work/umbrella.i"
if grep -E '^# [0-9]+ "[^"]*(nlohmann|curl|sqlite3|/regex)' "$work/umbrella.i" | head -n 5 | grep .; then
  echo "tavrin/tavrin.h reaches a heavy header (above)"; exit 1
fi
# Nor the SDK's own machinery: queues and the transport's records stay behind the public types.
if grep -E '^# [0-9]+ "[^"]*tavrin/(platform/dispatch|transport/(internal/)?service_protocol)\.h"' "$work/umbrella.i" | head -n 3 | grep .; then
  echo "tavrin/tavrin.h reaches an internal header (above)"; exit 1
fi
echo "tavrin/tavrin.h preprocesses to $(wc -l <"$work/umbrella.i") lines"

cmake -S "$here/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" "${cmake_cross[@]}" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
# Windows programs end their lines with CR LF.
"${emulator[@]}" "$work/cmake-build/consumer$exe" | tr -d '\r' | grep -q '^domain collect.example.com$'

libdir=$(find "$work/prefix" -name tavrin.pc -printf '%h\n' | head -n 1)
export PKG_CONFIG_PATH="$libdir"
# shellcheck disable=SC2046 # pkg-config's flags are words
"$cxx" -std=c++20 "$here/consumer/main.cpp" -o "$work/pc-consumer" $(pkg-config --cflags --libs tavrin) "${cross_ldflags[@]}"
"${emulator[@]}" "$work/pc-consumer$exe" | tr -d '\r' | grep -q '^push {"price":9.99,"tags":\["a","b"\],"track":"pageview"}$'

# The whole-session example of README's "Public API at a glance" compiles and
# links against the installed package (it is not run: it names a real domain).
awk '/^## Public API at a glance/{f=1} f&&/^```cpp/{p=1;next} p&&/^```/{exit} p' "$here/../../README.md" >"$work/readme_example.cpp"
grep -q 'TavrinService::configure' "$work/readme_example.cpp"
"$cxx" -std=c++20 -Wall -Wextra -Werror "$work/readme_example.cpp" -o "$work/readme-example" \
  $(pkg-config --cflags --libs tavrin) "${cross_ldflags[@]}"
echo "installed package works through find_package and pkg-config; README's example builds"

if [ ${#emulator[@]} -gt 0 ]; then
  cmake -S "$here/../../examples/shop" -B "$work/shop" -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$work/prefix" \
    "${cmake_cross[@]}" >/dev/null
  cmake --build "$work/shop" >/dev/null
  shop="$work/shop/tavrin-shop-example"
  session_env=(TAVRIN_EMULATOR="${emulator[*]}")
  if [ -f "$shop.exe" ]; then
    shop="$shop.exe"
    echo "shop: $(head -c 2 "$shop") executable for Windows, run under ${emulator[*]}"
    session_env=(TAVRIN_SHOP_EMULATOR="${emulator[*]}")
  else
    readelf -h "$shop" | grep "Machine:"
  fi
  [ -x "$collector" ] || { echo "no collector to run the shop against: $collector"; exit 1; }
  env "${session_env[@]}" bash "$here/../../scripts/shop_session.sh" "$collector" "$shop" --runs 2 >"$work/shop.out" 2>&1 \
    || { cat "$work/shop.out"; echo "the example shop built against the installed tree failed"; exit 1; }
  grep -E '^(requests|problems found|user id|consent id)' "$work/shop.out"
fi
