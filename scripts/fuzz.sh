#!/bin/bash
# fuzz.sh [seconds] -- builds the libFuzzer targets with clang, replays every seed corpus
# (a regression test: any crash fails), then fuzzes the targets for the given total
# budget in seconds (default 600), shared equally among them with at least 10 s each
# (0 replays only). New inputs go to a scratch copy, not the repository.
set -euo pipefail
cd "$(dirname "$0")/.."
budget="${1:-600}"
bash scripts/setup.sh
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DQV_FUZZ=ON -DQV_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build-fuzz
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
bins=(build-fuzz/fuzz/*_fuzz)
secs=0
if [ "$budget" != 0 ]; then
  secs=$(( budget / ${#bins[@]} ))
  (( secs >= 10 )) || secs=10
fi
echo "== ${#bins[@]} fuzz targets, ${secs}s each"
status=0
for bin in "${bins[@]}"; do
  [ -x "$bin" ] || continue
  name=$(basename "$bin" _fuzz)
  corpus="fuzz/corpus/$name"
  echo "== $name: replaying $corpus"
  "$bin" -runs=0 "$corpus" >"build-fuzz/$name.replay.log" 2>&1 \
    || { echo "replay of $name failed"; tail -40 "build-fuzz/$name.replay.log"; status=1; continue; }
  if [ "$secs" != 0 ]; then
    work="build-fuzz/work-$name"
    rm -rf "$work"; mkdir -p "$work"
    echo "== $name: fuzzing ${secs}s"
    "$bin" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 -artifact_prefix="build-fuzz/$name-" \
      "$work" "$corpus" >"build-fuzz/$name.fuzz.log" 2>&1 \
      || { echo "fuzzing $name found a failure"; tail -60 "build-fuzz/$name.fuzz.log"; status=1; }
  fi
done
exit $status
