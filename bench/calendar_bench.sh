#!/bin/bash
# calendar_bench.sh [RUNS] [BLOCKS] -- whole-process benchmark of the month view of a
# calendar holding 10,000 items in the month (sample_calendar's "big"), one webquorvel
# request through the sample agent in calendar mode, against the static floor
# (gateway_floor.c) given the same reply (the same two pairs, byte for byte) by an agent
# that captured it once; webquorvel against that static reply too, which parts the
# gateway's share from the agent's. The runs are made in BLOCKS blocks, taking turns
# between the live and the static agent, so that a busy machine's drift falls on both;
# each figure is the median of the blocks' medians (with their lowest and highest).
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-400}
blocks=${2:-10}
per=$(( (runs + blocks - 1) / blocks ))
export TZ=UTC  # the generator and the agents read the times alike

bash scripts/setup.sh
build=$PWD/build-bench-web
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQV_BENCH=ON -DQV_TESTS=OFF \
  -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG" >/dev/null
ninja -C "$build" webquorvel gateway_floor gateway_runner calendar_agent sample_calendar >/dev/null

root=$build/calroot
work=$build/calbench
rm -rf "$root" "$work"; mkdir -p "$work"
bash scripts/webroot.sh "$root" "$build/gateway/webquorvel" 8080
cp "$build/bench/gateway_floor" "$root/cgi-bin/floor"
"$build/testing/sample_calendar" "$work/db" 2026 11 10000
query="view=month&user=big&date=2026-11"

pids=()
stop_agents() { local p; for p in "${pids[@]}"; do kill "$p" 2>/dev/null; wait "$p" 2>/dev/null || true; done; }
trap stop_agents EXIT
# start_agent live|static: the agent's port offset into $offset, reply bytes into $bytes.
start_agent() {
  rm -f "$work/$1.port"
  "$build/bench/calendar_agent" "$1" "$work/db" "$query" "$work/$1.port" >"$work/$1.size" 2>/dev/null &
  pids+=($!)
  for _ in $(seq 300); do [ -s "$work/$1.port" ] && break; sleep 0.02; done
  [ -s "$work/$1.port" ] || { echo "calendar_bench: $1 agent did not start" >&2; exit 1; }
  offset=$(($(cat "$work/$1.port") - 3726)); bytes=$(cat "$work/$1.size")
}
start_agent live; live=$offset
start_agent static; static=$offset

# One request by hand: the page must list every item.
(cd "$root/cgi-bin" && QUERY_STRING="dn=127.0.0.1:$live&$query" ./webquorvel >"$work/page.html")
items=$(grep -o '<li class="event"><i>' "$work/page.html" | wc -l)
[ "$items" = 10000 ] || { echo "calendar_bench: the page lists $items items, not 10000" >&2; exit 1; }

for b in $(seq "$blocks"); do
  (cd "$root/cgi-bin" && QUERY_STRING="dn=127.0.0.1:$live&$query" \
     "$build/bench/gateway_runner" "$per" 3 ./webquorvel) | sed 's/^/live /' >>"$work/runs.txt"
  (cd "$root/cgi-bin" && QUERY_STRING="dn=127.0.0.1:$static&$query" \
     "$build/bench/gateway_runner" "$per" 3 ./webquorvel ./floor) | sed 's/^/static /' >>"$work/runs.txt"
done

echo "month view of 10,000 items: reply message $bytes bytes (page and picture), $((blocks * per)) runs in $blocks blocks"
echo "| request | median µs (lowest-highest block) | ratio to the floor | peak KiB |"
echo "|---|---|---|---|"
awk '
  function median(list, n,   a, i, j, t) {
    n = split(list, a, " ")
    for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (a[j] < a[i]) { t = a[i]; a[i] = a[j]; a[j] = t }
    lo[list] = a[1]; hi[list] = a[n]
    return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
  }
  { key = $1 " " $2; times[key] = times[key] " " $3; if ($6 > peak[key]) peak[key] = $6 }
  END {
    floor = median(times["static ./floor"])
    split("live ./webquorvel|static ./webquorvel|static ./floor", keys, "|")
    split("webquorvel, calendar agent (the whole month view)|webquorvel, static reply|floor, static reply", names, "|")
    for (k = 1; k <= 3; k++) {
      m = median(times[keys[k]])
      printf "| %s | %.0f (%.0f-%.0f) | %.2fx | %d |\n", names[k], m, lo[times[keys[k]]], hi[times[keys[k]]], m / floor, peak[keys[k]]
    }
  }' "$work/runs.txt"
