#!/usr/bin/env bash
# Installs what building and testing zyldb needs on a Debian machine, with
# apt-get. Does nothing when everything is already there.
set -euo pipefail

need=()
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
for pkg in cmake ninja-build g++ clang clang-format libclang-rt-14-dev googletest libgtest-dev \
           libbenchmark-dev libsqlite3-dev python3 pkg-config ccache clang-tidy \
           nlohmann-json3-dev pybind11-dev python3-pybind11 python3-dev python3-pytest \
           python3-numpy python3-pandas python3-pip python3-setuptools python3-wheel; do
  have_pkg "$pkg" || need+=("$pkg")
done

if [ ${#need[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup: installing ${need[*]}" >&2
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${need[@]}"
