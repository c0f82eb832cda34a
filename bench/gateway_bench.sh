#!/bin/bash
# gateway_bench.sh [RUNS] -- whole-process benchmark of one webquorvel request against
# the sample agent, each scenario measured against the static floor client
# (gateway_floor.c) in the same run: pages of 1 KiB, 64 KiB and 1 MiB (the whole
# reply message), 50 files of 1 KiB into a cleared tmp/, and 50 files of 1 KiB
# overwriting the previous request's files outside tmp/ (measured against the floor
# writing fresh files). The programs run as a web server would run them: from cgi-bin/
# beside htdocs/, QUERY_STRING set, output discarded. gateway_runner takes turns between
# webquorvel and the floor, and reports medians and the peak resident set (ru_maxrss)
# of each.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-400}

bash scripts/setup.sh
build=$PWD/build-bench-web
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQV_BENCH=ON -DQV_TESTS=OFF \
  -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG" >/dev/null
ninja -C "$build" webquorvel gateway_floor gateway_agent gateway_runner >/dev/null

root=$build/gwroot
rm -rf "$root"
bash scripts/webroot.sh "$root" "$build/gateway/webquorvel" 8080
cp "$build/bench/gateway_floor" "$root/cgi-bin/floor"
work=$build/gwbench
rm -rf "$work"; mkdir -p "$work"

agent=""
stop_agent() { [ -z "$agent" ] || { kill "$agent" 2>/dev/null; wait "$agent" 2>/dev/null || true; agent=""; }; }
trap stop_agent EXIT

# Starts the agent for one scenario and points QUERY_STRING at it.
start_agent() {
  rm -f "$work/port"
  "$build/bench/gateway_agent" "$1" "$2" "$work/port" 2>/dev/null &
  agent=$!
  for _ in $(seq 200); do [ -s "$work/port" ] && break; sleep 0.02; done
  [ -s "$work/port" ] || { echo "gateway_bench: agent did not start" >&2; exit 1; }
  export QUERY_STRING="dn=127.0.0.1:$(($(cat "$work/port") - 3726))&lan=En_US"
}

# measure NAME KIND N REPLY_BYTES [FLOOR_FROM]: one scenario, a table row on stdout. The
# runner takes turns between the gateway and the floor.
measure() {
  local name=$1 kind=$2 n=$3 bytes=$4 floorFrom=${5:-} programs=(./webquorvel ./floor)
  # The floor truncates files with fopen "w"; kept out of the overwrite scenario, it
  # leaves the gateway to overwrite its own files of the previous request.
  [ -z "$floorFrom" ] || programs=(./webquorvel)
  start_agent "$kind" "$n"
  (cd "$root/cgi-bin" && "$build/bench/gateway_runner" "$runs" 20 "${programs[@]}") \
    >"$work/$name.txt"
  stop_agent
  local f=$work/${floorFrom:-$name}.txt
  awk -v n="$name" -v b="$bytes" '
    NR == FNR && $1 == "./webquorvel" { g = $2; g25 = $3; g75 = $4; peak = $5 }
    NR != FNR && $1 == "./floor" { floor = $2 }
    END {
      printf "| %s | %.0f (%.0f-%.0f) | %.0f | %.2fx | %d | %d |\n", n, g, g25, g75,
             floor, g / floor, peak, (2 * b) / 1024 + 2048 }' "$work/$name.txt" "$f"
}

echo "| scenario | gateway median µs (p25-p75) | floor µs | ratio | gateway peak KiB | memory bound KiB |"
echo "|---|---|---|---|---|---|"
measure page-1KiB page 1024 1024
measure page-64KiB page 65536 65536
measure page-1MiB page 1048576 1048576
# 50 files of 1 KiB and a small page: about 52 KiB of reply.
measure files-50-tmp tmp 50 53000
# Same files outside tmp/, rewritten over the previous request's; floor: fresh files.
measure files-50-overwrite out 50 53000 files-50-tmp
