#!/bin/bash
# setup.sh -- installs, from Debian's packages, whatever the build, the tests, the demo
# and the benchmarks need and this machine lacks. Safe to run again; prints what it
# installs and apt's progress, since a first install can take minutes.
set -euo pipefail

need=()
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

# Build and tests; the web servers of the deployment tests (lighttpd, Apache, nginx with
# fcgiwrap); chromium for the page screenshots; pkgconf for the installed-package check.
for p in cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev \
         libbenchmark-dev lighttpd libprotobuf-dev protobuf-compiler hyperfine curl pkgconf \
         apache2 nginx-light fcgiwrap chromium exim4-daemon-light; do
  have_pkg "$p" || need+=("$p")
done

if ((${#need[@]})); then
  echo "setup: installing ${need[*]}"
  SUDO=""
  [ "$(id -u)" = 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q || true
  # exim4 (the mail tests' sendmail program and loopback SMTP server) would start a
  # system daemon on port 25 from its maintainer scripts; a policy-rc.d answering 101
  # forbids any service start while installing (and spares machines without init).
  policy=/usr/sbin/policy-rc.d madepolicy=""
  if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\nexit 101\n' | $SUDO tee "$policy" >/dev/null
    $SUDO chmod 0755 "$policy"; madepolicy=1
  fi
  $SUDO apt-get install -y -q "${need[@]}" || { [ -z "$madepolicy" ] || $SUDO rm -f "$policy"; exit 1; }
  [ -z "$madepolicy" ] || $SUDO rm -f "$policy"
  # The web servers' packages may start system-wide servers on port 80; the tests and
  # the demo start their own on loopback, so stop what this install started.
  for s in lighttpd apache2 nginx fcgiwrap; do
    case " ${need[*]} " in *" $s "*|*" $s-light "*)
      $SUDO service "$s" stop >/dev/null 2>&1 || true ;;
    esac
  done
  echo "setup: done"
fi
# The mail tests start their own exim on a loopback port; no system MTA may hold port 25.
if [ -s /run/exim4/exim.pid ]; then
  ${SUDO:-} service exim4 stop >/dev/null 2>&1 || true
fi
exit 0
