#!/usr/bin/env bash
# Builds the library and its tests and runs every test.
# Usage: scripts/test.sh [build-dir] [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
dir=${1:-build}
shift || true
cmake -S . -B "$dir" -G Ninja -DKRVXML_BUILD_TESTS=ON "$@" >/dev/null
cmake --build "$dir" -j2
ctest --test-dir "$dir" -j2 --output-on-failure --timeout 900
