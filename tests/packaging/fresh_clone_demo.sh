#!/usr/bin/env bash
# The README's first command on a fresh clone of the checkout's HEAD: clones it
# into a temporary directory, runs `bash scripts/demo.sh --no-wait` there and
# checks the summary it prints (every kind of request arrived, the shape check
# found no problem).
set -uo pipefail
source_dir=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/tavrin-fresh-clone.XXXXXX")
trap 'rm -rf "$work"' EXIT

git clone -q "$source_dir" "$work/tavrin" || { echo "git clone failed"; exit 1; }
cd "$work/tavrin"
[ ! -e build ] || { echo "a fresh clone already has build/"; exit 1; }
bash scripts/demo.sh --no-wait </dev/null >"$work/demo.out" 2>&1
status=$?
cat "$work/demo.out"
[ $status -eq 0 ] || { echo "demo.sh exited with $status"; exit 1; }

fail() { echo "FAILED: $1"; exit 1; }
summary=$(grep -E '^requests: [0-9]+ ' "$work/demo.out") || fail "no request summary"
for kind in consent data monitor; do
  grep -qE "(^| )$kind=[1-9]" <<<"$summary" || fail "no $kind request in: $summary"
done
grep -qx 'problems found: 0' "$work/demo.out" || fail "the collector's shape check found problems"
grep -q '"tvrpushedcommands"' "$work/demo.out" || fail "no data submission printed"
echo "fresh clone demo: $summary"
