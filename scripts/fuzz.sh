#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a while on its
# seed corpus.   scripts/fuzz.sh [seconds-per-target]
set -euo pipefail
cd "$(dirname "$0")/.."
secs="${1:-60}"
scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"
shopt -s nullglob
for bin in build/fuzz/fuzz/fuzz_*; do
  [ -x "$bin" ] || continue
  name="$(basename "$bin")"
  corpus="fuzz/corpus/${name#fuzz_}"
  work="build/fuzz/corpus-${name}"
  mkdir -p "$work"
  echo "fuzz: $name for ${secs}s"
  "$bin" -max_total_time="$secs" -max_len=8192 -timeout=10 -rss_limit_mb=2048 \
    "$work" "$corpus" 2>&1 | tail -n 3
done
