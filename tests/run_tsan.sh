#!/usr/bin/env bash
# Builds the tests with ThreadSanitizer and runs the parallel-use suite.
# Usage: tests/run_tsan.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-tsan}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKRVXML_BUILD_TESTS=ON \
  -DKRVXML_BUILD_TOOLS=OFF -DKRVXML_SANITIZE=thread >/dev/null
cmake --build "$build" -j2 --target test_hardening
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1} \
  "$build/tests/test_hardening" --gtest_filter='Threads.*'
