#!/bin/bash
# setup.sh -- installs, from Debian's packages, whatever the build, the tests, the demo
# and the benchmarks need and this machine lacks. Safe to run again.
set -euo pipefail

need=()
have_cmd() { command -v "$1" >/dev/null 2>&1; }
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

for p in cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev \
         libbenchmark-dev lighttpd libprotobuf-dev protobuf-compiler hyperfine curl \
         exim4-daemon-light; do
  have_pkg "$p" || need+=("$p")
done

if ((${#need[@]})); then
  echo "setup: installing ${need[*]}"
  SUDO=""
  [ "$(id -u)" = 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq || true
  # exim4 (the mail tests' sendmail program and loopback SMTP server) would start a
  # system daemon on port 25 from its maintainer scripts; a policy-rc.d answering 101
  # forbids any service start while installing (and spares machines without init).
  policy=/usr/sbin/policy-rc.d madepolicy=""
  if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\nexit 101\n' | $SUDO tee "$policy" >/dev/null
    $SUDO chmod 0755 "$policy"; madepolicy=1
  fi
  $SUDO apt-get install -y -qq "${need[@]}" >/dev/null || { [ -z "$madepolicy" ] || $SUDO rm -f "$policy"; exit 1; }
  [ -z "$madepolicy" ] || $SUDO rm -f "$policy"
fi
# lighttpd's package starts a system-wide server on port 80; we only want the binary.
if have_cmd systemctl && systemctl is-active --quiet lighttpd 2>/dev/null; then
  systemctl stop lighttpd || true
fi
# The mail tests start their own exim on a loopback port; no system MTA may hold port 25.
if have_cmd systemctl && systemctl is-active --quiet exim4 2>/dev/null; then
  systemctl stop exim4 || true
elif [ -s /run/exim4/exim.pid ] && [ -x /etc/init.d/exim4 ]; then
  /etc/init.d/exim4 stop >/dev/null 2>&1 || true   # started by an init script
fi
exit 0
