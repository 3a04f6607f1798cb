#!/usr/bin/env bash
# Checks that zyldb works as an installed package: builds and installs the
# library into a temporary prefix, builds tests/consumer against it with
# find_package, runs the resulting host example, and checks the pkg-config
# file. Exits non-zero on any failure.
#   scripts/consumer_test.sh [work-dir]   (default: a fresh temporary directory)
set -euo pipefail
src="$(cd "$(dirname "$0")/.." && pwd)"
work="${1:-$(mktemp -d)}"
if [ $# -eq 0 ]; then trap 'rm -rf "$work"' EXIT; fi
prefix="$work/prefix"
gen=()
if command -v ninja >/dev/null; then gen=(-G Ninja); fi

step() { echo "consumer_test: $*" >&2; }

step "building and installing zyldb into $prefix"
cmake -S "$src" -B "$work/lib" "${gen[@]}" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_INSTALL_PREFIX="$prefix" -DZYLDB_BUILD_TESTS=OFF -DZYLDB_BUILD_BENCHMARKS=OFF \
  -DZYLDB_BUILD_EXAMPLES=OFF -DZYLDB_BUILD_TOOLS=OFF -DZYLDB_INSTALL=ON >/dev/null
cmake --build "$work/lib" -j "$(nproc)" --target zyldb
cmake --install "$work/lib" >/dev/null

step "building tests/consumer with find_package(zyldb)"
cmake -S "$src/tests/consumer" -B "$work/consumer" "${gen[@]}" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer"

step "running the host example"
libdir="$(dirname "$(find "$prefix" -name 'libzyldb.so*' -print -quit)")"
out="$work/run"
mkdir -p "$out"
(cd "$out" && LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
  "$work/consumer/host_example" "$src/examples/clips.log" "$out/arranged.log")

step "checking pkg-config"
pcdir="$(dirname "$(find "$prefix" -name zyldb.pc -print -quit)")"
flags="$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs zyldb)"
case "$flags" in
  *-lzyldb*) ;;
  *) echo "consumer_test: pkg-config gave no -lzyldb: $flags" >&2; exit 1 ;;
esac
# The flags alone must be enough to build and link a host.
printf '#include <zyldb/all.h>\n#include <cstdio>\nint main() { std::puts(zyldbDllVersionStr()); }\n' \
  > "$work/pc_host.cpp"
# shellcheck disable=SC2086
c++ "$work/pc_host.cpp" -o "$work/pc_host" $flags
LD_LIBRARY_PATH="$libdir" "$work/pc_host" >/dev/null

step "ok"
