#!/bin/bash
# setup.sh -- installs, from Debian's packages, whatever the build, the tests, the demo
# and the benchmarks need and this machine lacks. Safe to run again.
set -euo pipefail

need=()
have_cmd() { command -v "$1" >/dev/null 2>&1; }
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

for p in cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev \
         libbenchmark-dev lighttpd libprotobuf-dev protobuf-compiler hyperfine curl pkgconf; do
  have_pkg "$p" || need+=("$p")
done

if ((${#need[@]})); then
  echo "setup: installing ${need[*]}"
  SUDO=""
  [ "$(id -u)" = 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq || true
  $SUDO apt-get install -y -qq "${need[@]}" >/dev/null
fi
# lighttpd's package starts a system-wide server on port 80; we only want the binary.
if have_cmd systemctl && systemctl is-active --quiet lighttpd 2>/dev/null; then
  systemctl stop lighttpd || true
fi
exit 0
