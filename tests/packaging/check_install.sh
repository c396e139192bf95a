#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a small
# consumer twice: through find_package(tavrin) and through pkg-config.
set -euo pipefail
build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null

cmake -S "$here/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer" | grep -q '"trackDomain":"collect.example.com"'

libdir=$(find "$work/prefix" -name tavrin.pc -printf '%h\n' | head -n 1)
export PKG_CONFIG_PATH="$libdir"
c++ -std=c++20 "$here/consumer/main.cpp" -o "$work/pc-consumer" $(pkg-config --cflags --libs tavrin)
"$work/pc-consumer" | grep -q '"price":9.99'
echo "installed package works through find_package and pkg-config"
