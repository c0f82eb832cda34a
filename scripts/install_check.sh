#!/bin/bash
# install_check.sh BUILD_DIR -- installs the build into a temporary prefix, then builds
# the two example clients from outside the tree (with the CMake package, with pkg-config,
# and with the source tree as a sub-project), and runs them on the fixture database.
# Run by CTest.
set -euo pipefail
src="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "$1" && pwd)"
work="$(mktemp -d /tmp/qvinstall.XXXXXX)"
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
for f in bin/webquorvel bin/quorvel-admin bin/sample_agent lib/libqv_base.a lib/libqv_print.a lib/cmake/quorvel/quorvelConfig.cmake \
         lib/pkgconfig/quorvel.pc include/quorvel/core/db/recordfile.h; do
  [ -e "$work/prefix/$f" ] || { echo "install_check: $f was not installed"; exit 1; }
done
if [ -e "$work/prefix/include/core" ]; then
  echo "install_check: headers landed in a bare include/core"; exit 1
fi

# Every installed header stands on the installed headers alone.
(cd "$work/prefix/include/quorvel" && find core -name '*.h' -printf '#include "%p"\n') >"$work/all.cpp"
c++ -std=c++20 -fsyntax-only -I"$work/prefix/include/quorvel" "$work/all.cpp"

# With CMake: find_package(quorvel CONFIG) and quorvel::core.
cmake -S "$src/examples" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
ninja -C "$work/cmake" >/dev/null

# With pkg-config, flags only from quorvel.pc.
export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
mkdir -p "$work/pc"
for ex in list_items wire_roundtrip; do
  # shellcheck disable=SC2046
  c++ -o "$work/pc/$ex" "$src/examples/$ex.cpp" $(pkg-config --cflags --libs quorvel)
done

# From the source tree as a sub-project (what FetchContent does): no -Werror forced on it.
cmake -S "$src/examples" -B "$work/sub" -G Ninja -DQUORVEL_SOURCE_DIR="$src" >/dev/null
ninja -C "$work/sub" list_items wire_roundtrip >/dev/null
if grep -q -- -Werror "$work/sub/build.ninja"; then
  echo "install_check: the sub-project build forces -Werror on its parent"; exit 1
fi

cp -r "$src/examples/fixtures" "$work/root"
expected="2 items
event	1778384896	ann,bob	Planning
to-do	1778450432	bob	File the report"
for dir in cmake pc sub; do
  got="$("$work/$dir/list_items" "$work/root" db/database/ann 2>&1)"
  [ "$got" = "$expected" ] || { echo "install_check: $dir list_items printed:"; echo "$got"; exit 1; }
  "$work/$dir/wire_roundtrip" "Board review" | grep -q '^round trip: same item$' \
    || { echo "install_check: $dir wire_roundtrip failed"; exit 1; }
done
echo "install_check: installed, both examples built with CMake and pkg-config and ran"
