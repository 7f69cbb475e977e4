#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang and runs each for a fixed number
# of inputs, starting from its seed corpus (tests/fuzz/corpus/<harness>/;
# parse_simd, the parse case built without AddressSanitizer so that the
# 16-byte scans run, starts from the parse seeds).
# Any crash, leak, sanitizer report or failed check fails the script; the
# input that caused it is left in the artifact directory.
#
# Usage: tests/fuzz/run_fuzzers.sh [runs-per-harness] [build-dir]
# Without a count each harness gets its own, sized to about a minute here.
set -euo pipefail
cd "$(dirname "$0")/../.."
runs=${1:-${KRVXML_FUZZ_RUNS:-}}
build=${2:-build-fuzz}
declare -A default_runs=([parse]=1000000 [parse_simd]=500000 [edit]=100000 [path_values]=500000)
src=tests/fuzz

CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DKRVXML_BUILD_FUZZ=ON -DKRVXML_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j2 --target fuzz_parse fuzz_parse_simd fuzz_edit fuzz_path_values

artifacts="$build/fuzz-artifacts"
mkdir -p "$artifacts"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
for h in parse parse_simd edit path_values; do
  work="$build/fuzz-corpus/$h"          # grows during the run; the seeds stay untouched
  mkdir -p "$work"
  n=${runs:-${default_runs[$h]}}
  start=$(date +%s)
  if ! "$build/tests/fuzz/fuzz_$h" -runs="$n" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
      -dict="$src/xml.dict" -artifact_prefix="$artifacts/$h-" -print_final_stats=1 \
      "$work" "$src/corpus/${h%_simd}" >"$build/fuzz-$h.log" 2>&1; then
    status=1
    echo "fuzz_$h FAILED after $(( $(date +%s) - start ))s; log: $build/fuzz-$h.log" >&2
    tail -n 40 "$build/fuzz-$h.log" >&2
  else
    echo "fuzz_$h: $n runs in $(( $(date +%s) - start ))s, $(grep -o 'cov: [0-9]*' "$build/fuzz-$h.log" | tail -1)"
  fi
done
exit $status
