#!/usr/bin/env bash
# Checks that zyldb works as an installed package: builds the library,
# installs it with `cmake --install --prefix DIR` (not the configured
# prefix), builds tests/consumer against it with find_package (the consumer
# asks for no C++ standard), checks which versions find_package accepts,
# runs the host programs, and checks that the pkg-config flags point into
# DIR and build a host. Exits non-zero on any failure.
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
  -DZYLDB_BUILD_TESTS=OFF -DZYLDB_BUILD_BENCHMARKS=OFF \
  -DZYLDB_BUILD_EXAMPLES=OFF -DZYLDB_BUILD_TOOLS=OFF -DZYLDB_INSTALL=ON >/dev/null
cmake --build "$work/lib" -j "$(nproc)" --target zyldb
cmake --install "$work/lib" --prefix "$prefix" >/dev/null

step "building tests/consumer with find_package(zyldb)"
cmake -S "$src/tests/consumer" -B "$work/consumer" "${gen[@]}" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer"

step "checking the version rule (0.x: same minor version only)"
for want in 0.0 0.2 1.1; do
  if cmake -S "$src/tests/consumer" -B "$work/consumer-$want" "${gen[@]}" \
    -DCMAKE_PREFIX_PATH="$prefix" -DZYLDB_WANT="$want" >/dev/null 2>&1; then
    echo "consumer_test: find_package(zyldb $want) accepted this version" >&2
    exit 1
  fi
done

step "running the host example"
libdir="$(dirname "$(find "$prefix" -name 'libzyldb.so*' -print -quit)")"
out="$work/run"
mkdir -p "$out"
(cd "$out" && LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
  "$work/consumer/host_example" "$src/examples/clips.log" "$out/arranged.log" &&
  LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$work/consumer/consumer_check" >/dev/null)

step "checking pkg-config"
pcdir="$(dirname "$(find "$prefix" -name zyldb.pc -print -quit)")"
flags="$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs zyldb)"
case "$flags" in
  *-lzyldb*) ;;
  *) echo "consumer_test: pkg-config gave no -lzyldb: $flags" >&2; exit 1 ;;
esac
# Every directory in the flags must lie in the install prefix.
realprefix="$(realpath "$prefix")"
for flag in $flags; do
  case "$flag" in
    -I* | -L*)
      d="$(realpath -m "${flag:2}")"
      case "$d/" in
        "$realprefix"/*) ;;
        *) echo "consumer_test: $flag is outside the install prefix $prefix" >&2; exit 1 ;;
      esac ;;
  esac
done
# The flags alone must be enough to build and link a host.
printf '#include <zyldb/all.h>\n#include <cstdio>\nint main() { std::puts(zyldbDllVersionStr()); }\n' \
  > "$work/pc_host.cpp"
# shellcheck disable=SC2086
c++ "$work/pc_host.cpp" -o "$work/pc_host" $flags
LD_LIBRARY_PATH="$libdir" "$work/pc_host" >/dev/null

step "ok"
