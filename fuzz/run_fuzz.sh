#!/usr/bin/env bash
# Fuzzes one target for a bounded time, then merges what it found with the
# kept corpus into a minimal set and writes that back to fuzz/corpus/<name>.
#   fuzz/run_fuzz.sh <name> [seconds]       (build folder: $BUILD or build-fuzz)
# Runs take turns on <build>/fuzz.lock, so queued runs never overlap.
set -euo pipefail

name=$1
seconds=${2:-600}
src=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$src/build-fuzz}
bin=$build/fuzz/fuzz_$name
kept=$src/fuzz/corpus/$name
work=$build/fuzz-work/$name
logs=$build/fuzz-logs
mkdir -p "$work/found" "$work/artifacts" "$logs" "$kept"

exec 9>"$build/fuzz.lock"
flock 9
echo "$(date -u +%FT%TZ) start $name" >>"$logs/queue.log"
status=0
nice -n 10 "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
  -artifact_prefix="$work/artifacts/" "$work/found" "$kept" >"$logs/$name.log" 2>&1 || status=$?
echo "$(date -u +%FT%TZ) fuzzed $name (exit $status)" >>"$logs/queue.log"

# Minimise by covered edges (-use_counters=0: hit counts would keep many
# times more files), the kept seeds first so that they stay when they add
# coverage. Named seeds are kept as they are; libFuzzer's files (named by
# their SHA-1) are replaced by the merged set, without copies of named ones.
rm -rf "$work/merged" && mkdir -p "$work/merged"
nice -n 10 "$bin" -merge=1 -use_counters=0 -timeout=10 -rss_limit_mb=2048 "$work/merged" "$kept" "$work/found" \
  >"$logs/$name.merge.log" 2>&1 || true
if [ -n "$(ls -A "$work/merged")" ]; then
  find "$kept" -maxdepth 1 -type f -regextype posix-extended -regex '.*/[0-9a-f]{40}' -delete
  for f in "$kept"/*; do rm -f "$work/merged/$(sha1sum <"$f" | cut -c1-40)"; done
  cp -n "$work/merged"/* "$kept"/ 2>/dev/null || true
fi
echo "$(date -u +%FT%TZ) merged $name" >>"$logs/queue.log"
exit $status
