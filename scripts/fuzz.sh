#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a while on its
# corpus, kept in the tree under fuzz/corpus/<name>/ (small seed files).
#   scripts/fuzz.sh [seconds-per-target] [target-filter]
#     seconds-per-target  default 60; CI uses a few, a long probe hundreds
#     target-filter       run only targets whose name contains it ("load")
# New inputs the fuzzer finds go to build/fuzz/corpus-<target>/; with
# FUZZ_MERGE=1 the ones that add coverage are merged into the tree corpus.
# A crash leaves its reproducer as build/fuzz/crash-<target>-*; the script
# then exits non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."
secs="${1:-60}"
filter="${2:-}"
if [ -z "${FUZZ_SKIP_SETUP:-}" ]; then scripts/setup.sh; fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"
shopt -s nullglob
status=0
for bin in build/fuzz/fuzz/fuzz_*; do
  [ -x "$bin" ] || continue
  name="$(basename "$bin")"
  case "$name" in *"$filter"*) ;; *) continue ;; esac
  corpus="fuzz/corpus/${name#fuzz_}"
  work="build/fuzz/corpus-${name}"
  mkdir -p "$work" "$corpus"
  echo "fuzz: $name for ${secs}s"
  if ! "$bin" -max_total_time="$secs" -max_len=8192 -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="build/fuzz/crash-${name}-" "$work" "$corpus" >"build/fuzz/${name}.log" 2>&1; then
    status=1
    echo "fuzz: $name FAILED; see build/fuzz/${name}.log" >&2
  fi
  tail -n 3 "build/fuzz/${name}.log"
  if [ -n "${FUZZ_MERGE:-}" ]; then
    "$bin" -merge=1 -max_len=8192 "$corpus" "$work" >/dev/null 2>&1 || true
  fi
done
exit "$status"
