#!/usr/bin/env bash
# Sets up, builds and runs every test with a preset (default: "default").
#   scripts/test.sh [preset]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset" -j "$(nproc)"
