#!/usr/bin/env bash
# Runs one fuzz target for $TAVRIN_FUZZ_SECONDS (default 60) on a scratch copy
# of its seed corpus, so the committed corpus never changes. Fails on any
# crash, leak, timeout (10 s per input) or out-of-memory (2 GiB); prints
# libFuzzer's final stats line, also kept in <runs>/<name>.result.
# Usage: run_fuzzer.sh <fuzzer binary> <name> <tests/fuzz dir> <runs dir>
set -uo pipefail
binary=$1 name=$2 fuzz_dir=$3 runs=$4
seconds=${TAVRIN_FUZZ_SECONDS:-60}

work="$runs/$name"
rm -rf "$work"
mkdir -p "$work/corpus" "$work/artifacts"
cp -r "$fuzz_dir/corpus/$name/." "$work/corpus/"
# Every target reads JSON: its tokens plus the target's own member names.
cat "$fuzz_dir/dict/json.dict" > "$work/dict"
[ -f "$fuzz_dir/dict/$name.dict" ] && cat "$fuzz_dir/dict/$name.dict" >> "$work/dict"

"$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -detect_leaks=1 \
  -print_final_stats=1 -dict="$work/dict" -artifact_prefix="$work/artifacts/" "$work/corpus" >"$work/log" 2>&1
status=$?

final=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$work/log" | tail -n 1)
result="$name: exit $status, ${final:-no final stats line}, corpus $(ls "$work/corpus" | wc -l) files"
echo "$result" | tee "$work.result"
if [ "$status" -ne 0 ]; then
  tail -n 60 "$work/log"
  ls -l "$work/artifacts"
  exit 1
fi
grep -E '^stat::' "$work/log"
