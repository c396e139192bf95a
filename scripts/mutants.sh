#!/usr/bin/env bash
# Mutation check of the suite: applies each mutation of scripts/mutants.txt to
# the library on its own, rebuilds, runs the suite without the long fault
# scenarios, the browser and the packaging test, and reports which mutants
# the suite killed. A survivor is a fault the suite would let through.
#
#   bash scripts/mutants.sh                 every mutant
#   bash scripts/mutants.sh 'retry|expiry'  only mutants whose name matches
#   bash scripts/mutants.sh --list          names only
#   TAVRIN_MUTANTS_LABELS='platform' bash scripts/mutants.sh   only tests/platform's tests
#
# The sources are restored after each mutant, also on Ctrl-C. Results go to
# build/mutants/results.txt as "killed|survived|no-build<TAB>name".
set -uo pipefail
cd "$(dirname "$0")/.."

list=scripts/mutants.txt
build=$(realpath -m "${TAVRIN_MUTANTS_BUILD:-build/mutants}")
filter=""
only_list=0
for arg in "$@"; do
  case "$arg" in
    --list) only_list=1 ;;
    -*) echo "usage: bash scripts/mutants.sh [--list] [NAME-REGEX]" >&2; exit 2 ;;
    *) filter=$arg ;;
  esac
done

# Splits the list into one directory per mutant (file, old, new, name) and
# checks that each old text occurs exactly once, so a stale entry is reported
# instead of silently testing nothing.
work=$(mktemp -d "${TMPDIR:-/tmp}/tavrin-mutants.XXXXXX")
python3 - "$list" "$work" "$filter" <<'PY' || { rm -rf "$work"; exit 1; }
import os, re, sys
path, out, pattern = sys.argv[1:4]
blocks, current, field = [], None, None
for raw in open(path, encoding="utf-8").read().split("\n"):
    if raw.startswith("#") and current is None:
        continue
    if raw.startswith("[") and raw.rstrip().endswith("]"):
        current = {"name": raw.strip()[1:-1], "file": "", "old": "", "new": ""}
        blocks.append(current); field = None
        continue
    if current is None:
        continue
    if raw.strip() == "":
        current = None; field = None
        continue
    m = re.match(r"^(file|old|new):( ?)(.*)$", raw)
    if m:
        field = m.group(1)
        current[field] = m.group(3)
    elif field in ("old", "new"):
        current[field] += "\n" + raw
    else:
        sys.exit(f"{path}: unexpected line in [{current['name']}]: {raw}")
bad = 0
chosen = [b for b in blocks if not pattern or re.search(pattern, b["name"])]
for i, b in enumerate(chosen):
    try:
        text = open(b["file"], encoding="utf-8").read()
    except OSError as e:
        print(f"stale mutant [{b['name']}]: {e}"); bad += 1; continue
    n = text.count(b["old"])
    if n != 1:
        print(f"stale mutant [{b['name']}]: old text found {n} times in {b['file']}"); bad += 1; continue
    d = os.path.join(out, f"{i:03d}")
    os.makedirs(d)
    for k in ("name", "file", "old", "new"):
        open(os.path.join(d, k), "w", encoding="utf-8").write(b[k])
if bad:
    sys.exit(1)
print(f"{len(chosen)} mutants", file=sys.stderr)
PY

if [ "$only_list" -eq 1 ]; then
  for d in "$work"/*/; do cat "$d/name"; echo; done
  rm -rf "$work"
  exit 0
fi

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}" CCACHE_NOHASHDIR="${CCACHE_NOHASHDIR:-1}"
fi
jobs=$(nproc 2>/dev/null || echo 2)
mkdir -p "$build"
# A shared library that the tests do not relink against: a mutant rebuilds one
# object and the library, not every test program.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTAVRIN_BUILD_TOOLS=OFF -DTAVRIN_BUILD_EXAMPLES=OFF \
  -DBUILD_SHARED_LIBS=ON -DTAVRIN_HIDE_INTERNALS=OFF -DCMAKE_LINK_DEPENDS_NO_SHARED=ON "${launcher[@]}" >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }

# TAVRIN_MUTANTS_LABELS (a ctest label regex, e.g. 'platform|session') runs
# only those folders' tests: what one folder's tests kill on their own.
labels=()
[ -n "${TAVRIN_MUTANTS_LABELS:-}" ] && labels=(-L "$TAVRIN_MUTANTS_LABELS")
# TAVRIN_MUTANTS_ALL=1 runs every test under each mutant and writes the tests
# that failed to $build/kills.tsv: which tests guard which fault.
stop=(--stop-on-failure)
[ -n "${TAVRIN_MUTANTS_ALL:-}" ] && stop=()
suite() {
  # Stops at the first failure: a killed mutant costs less than a survivor.
  (cd "$build" && ctest -LE 'reliability|browser|packaging' "${labels[@]}" "${stop[@]}" -j "$jobs" \
    --timeout 120 >"$build/ctest.log" 2>&1)
}

echo "=== baseline build and suite"
cmake --build "$build" -j "$jobs" >"$build/build.log" 2>&1 || { tail -n 40 "$build/build.log"; exit 1; }
if ! suite; then
  grep -E 'Failed|\*\*\*' "$build/ctest.log" | head -20
  echo "mutants.sh: the unmutated suite fails; fix that first"
  rm -rf "$work"
  exit 1
fi

current=""
restore() {
  # Written back with a new time stamp, so the next build recompiles it.
  if [ -n "$current" ] && [ -f "$current.orig-mutant" ]; then
    cat "$current.orig-mutant" >"$current" && rm -f "$current.orig-mutant"
  fi
  current=""
}
trap 'restore; rm -rf "$work"; exit 130' INT TERM
: >"$build/results.txt"
: >"$build/kills.tsv"
killed=0 survived=0 stillborn=0
for d in "$work"/*/; do
  name=$(cat "$d/name") file=$(cat "$d/file")
  current=$file
  cp "$file" "$file.orig-mutant"
  python3 - "$file" "$d/old" "$d/new" <<'PY'
import sys
path, old, new = sys.argv[1], open(sys.argv[2]).read(), open(sys.argv[3]).read()
text = open(path).read()
open(path, "w").write(text.replace(old, new, 1))
PY
  start=$SECONDS
  if ! cmake --build "$build" -j "$jobs" >"$build/build.log" 2>&1; then
    verdict=no-build; stillborn=$((stillborn + 1))
  elif suite; then
    verdict=survived; survived=$((survived + 1))
  else
    verdict=killed; killed=$((killed + 1))
  fi
  restore
  printf '%s\t%s\n' "$verdict" "$name" | tee -a "$build/results.txt"
  if [ -n "${TAVRIN_MUTANTS_ALL:-}" ]; then
    printf '%s\t%s\n' "$name" "$(sed -n '/tests FAILED:/,$ s/^[[:space:]]*[0-9]* - \([^ ]*\) (.*/\1/p' "$build/ctest.log" | tr '\n' ' ')" \
      >>"$build/kills.tsv"
  fi
  echo "    ($((SECONDS - start)) s)"
done
trap - INT TERM
rm -rf "$work"
# Rebuild the unmutated library so the build directory is left as the sources are.
cmake --build "$build" -j "$jobs" >"$build/build.log" 2>&1

echo "=== mutants: $killed killed, $survived survived, $stillborn did not build"
grep -P '^survived\t' "$build/results.txt" | sed 's/^survived\t/  survived: /'
[ "$survived" -eq 0 ] && [ "$stillborn" -eq 0 ]
