#!/usr/bin/env bash
# Builds the library as a shared object with its internals hidden, checks
# that it exports the public API and none of the internals, then runs the
# installed-package check against it (the example shop builds against it).
set -euo pipefail
source_dir=$1
build_dir=$2/shared-library
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

cmake -S "$source_dir" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=ON -DTAVRIN_BUILD_TESTS=OFF \
  -DTAVRIN_BUILD_TOOLS=OFF "${launcher[@]}" >"$build_dir.configure.log" 2>&1 || { cat "$build_dir.configure.log"; exit 1; }
cmake --build "$build_dir" -j "$(nproc)" >"$build_dir.build.log" 2>&1 || { tail -n 40 "$build_dir.build.log"; exit 1; }

library=$(find "$build_dir" -maxdepth 1 -name 'libtavrin.so.*.*' | head -n 1)
nm -DC --defined-only "$library" >"$build_dir.exports"
for wanted in 'tavrin::TavrinService::configure' 'tavrin::TrackingService::push' 'typeinfo for tavrin::ServiceError' \
  'tavrin::platform::SystemLog::setSink'; do
  grep -qF "$wanted" "$build_dir.exports" || { echo "libtavrin.so does not export $wanted"; exit 1; }
done
# Internals of every layer stay inside.
if grep -E 'tavrin::(detail::|MemoryCacheUtility|LoggerUtility|TagCache|Service::|OfflineCache|MonitorService|platform::os::)' \
  "$build_dir.exports" | head -n 5 | grep .; then
  echo "libtavrin.so exports internals (above)"; exit 1
fi
echo "libtavrin.so: $(stat -c %s "$library") bytes, $(grep -c ' tavrin::' "$build_dir.exports") tavrin symbols exported"

bash "$(dirname "$0")/check_install.sh" "$build_dir"
