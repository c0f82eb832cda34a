#!/bin/bash
# demo.sh [--serve] -- the gateway end to end: installs what is missing, builds webquorvel,
# the sample web agent and sample_calendar (Release), writes a small calendar database
# for this month (./demo-root/calendar: four calendars, a month of items, permissions,
# holidays, class looks), lays out ./demo-root (cgi-bin/webquorvel beside htdocs/tmp/),
# starts the agent in calendar mode and lighttpd on free loopback ports, makes one real
# request for the month view through the web server with curl, and prints the page and
# the files the gateway wrote, then the URL of the month view. Exits 0 when all of that
# worked. With --serve it keeps serving; Ctrl-C stops everything.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

serve=0
case "${1:-}" in
  "") ;;
  --serve) serve=1 ;;
  *) echo "usage: bash scripts/demo.sh [--serve]" >&2; exit 2 ;;
esac

bash scripts/setup.sh
build=$top/build-demo
# Release at -O2, as distributions build it (GCC 12 at -O3 raises false alarms under -Werror).
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQV_TESTS=OFF \
  -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG" >/dev/null
ninja -C "$build" webquorvel sample_agent sample_calendar >/dev/null
echo "== built $build/gateway/webquorvel, $build/testing/sample_agent and sample_calendar"

root=$top/demo-root
rm -rf "$root"
pids=()
cleanup() {
  local p
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
  pids=()
}
trap cleanup EXIT
trap 'echo; echo "demo: stopped"; exit 0' INT TERM

listening() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# A port in [lo, hi) that nothing listens on yet.
free_port() {
  local lo=$1 hi=$2 p i
  for i in $(seq 200); do
    p=$((lo + (RANDOM * 32768 + RANDOM) % (hi - lo)))
    listening "$p" || { echo "$p"; return 0; }
  done
  echo "demo: no free port in $lo..$hi" >&2
  return 1
}

# Waits up to five seconds for a started process to listen on a port.
await_port() {
  local pid=$1 port=$2 i
  for i in $(seq 100); do
    listening "$port" && return 0
    kill -0 "$pid" 2>/dev/null || return 1
    sleep 0.05
  done
  return 1
}

# The agent picks a free port (3726 + n); the query carries n.
start_agent() {
  local pid i port=""
  rm -f "$root/log/agent.port"
  "$build/testing/sample_agent" --mode calendar --database "$root/calendar" --port 0 \
    --port-file "$root/log/agent.port" >"$root/log/agent.log" 2>&1 &
  pid=$!
  pids+=("$pid")
  for i in $(seq 100); do
    [ -s "$root/log/agent.port" ] && port=$(tr -d "\n" <"$root/log/agent.port") && break
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  if [ -z "$port" ] || ! await_port "$pid" "$port"; then
    echo "demo: the sample agent did not start:" >&2; cat "$root/log/agent.log" >&2
    return 1
  fi
  agent_n=$((port - 3726))
}

start_lighttpd() {
  local try pid
  for try in 1 2 3 4 5; do
    http_port=$(free_port 30000 60000)
    bash scripts/webroot.sh "$root" "$build/gateway/webquorvel" "$http_port"
    lighttpd -D -f "$root/lighttpd.conf" >>"$root/log/lighttpd.out" 2>&1 &
    pid=$!
    if await_port "$pid" "$http_port"; then pids+=("$pid"); return 0; fi
    kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true
  done
  echo "demo: lighttpd did not start:" >&2
  cat "$root/log/lighttpd.out" "$root/log/error.log" >&2 2>/dev/null || true
  return 1
}

mkdir -p "$root/log"
month=$(date +%Y-%m)
"$build/testing/sample_calendar" "$root/calendar" "${month%-*}" "$((10#${month#*-}))"
echo "== calendar database $root/calendar: ann, bob, carol, office; items of $month"
start_agent
start_lighttpd
echo "== web root $root: cgi-bin/webquorvel beside htdocs/ (with tmp/)"
echo "== sample agent on 127.0.0.1 port $((3726 + agent_n)); lighttpd on 127.0.0.1 port $http_port"
base="http://127.0.0.1:$http_port/cgi-bin/webquorvel?dn=127.0.0.1:$agent_n&lan=En_US&rpt=/icons"
url="$base&view=month&user=ann&date=$month"

echo "== request: GET $url"
status=$(curl -sS -o "$root/log/page.out" -D "$root/log/page.head" -w '%{http_code}' "$url")
echo "== response: HTTP $status"
cat "$root/log/page.head" | tr -d '\r'
cat "$root/log/page.out"
echo
echo "== files written under htdocs/ (bytes, path)"
files=$(cd "$root/htdocs" && find . -type f -printf '%s\t%P\n' | sort -k2)
echo "${files:-  (none)}"

[ "$status" = 200 ] || { echo "demo: the request failed (HTTP $status)" >&2; exit 1; }
[ -n "$files" ] || { echo "demo: the gateway wrote no files" >&2; exit 1; }
# Every file written is served back by the web server, byte for byte.
while IFS=$'\t' read -r size path; do
  got=$(curl -sS -o /dev/null -w '%{http_code} %{size_download}' "http://127.0.0.1:$http_port/$path")
  [ "$got" = "200 $size" ] || { echo "demo: /$path served as '$got', expected '200 $size'" >&2; exit 1; }
done <<<"$files"
echo "== every file is served back by lighttpd"
grep -q "Calendar of Ann Archer" "$root/log/page.out" || { echo "demo: no calendar on the page" >&2; exit 1; }

echo
echo "The month view of ann's calendar (add &as=bob to read it with bob's rights, who may"
echo "not see her private items; &as=carol may; view=week or view=day with date=YYYY-MM-DD):"
echo "  $url"
if [ "$serve" = 0 ]; then
  echo "(bash scripts/demo.sh --serve keeps it serving for a browser)"
else
  echo "Serving. Open the URL in a browser (Ctrl-C stops)."
  wait "${pids[@]}"
fi
exit 0
