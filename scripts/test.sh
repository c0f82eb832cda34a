#!/bin/bash
# test.sh -- builds everything and runs every test. With QV_SANITIZE=1 the build uses
# AddressSanitizer and UndefinedBehaviorSanitizer (in build-asan/).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

if [ "${QV_SANITIZE:-0}" = 1 ]; then
  dir=build-asan
  cmake -S . -B "$dir" -G Ninja -DQV_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug >/dev/null
  export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
else
  dir=build
  cmake -S . -B "$dir" -G Ninja >/dev/null
fi
ninja -C "$dir"
ctest --test-dir "$dir" --output-on-failure -j2 --timeout 300
