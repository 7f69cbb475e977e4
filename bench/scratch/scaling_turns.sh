#!/bin/bash
# The peer driver's scaling cells (synthetic_1MB and synthetic_100MB) for library builds taken
# in turn, each run a process of its own with LD_LIBRARY_PATH set to the build's directory:
#   bench/scratch/scaling_turns.sh ROUNDS LIBDIR...
# Needs bench/build (bash bench/run builds it) and the corpus. KRV_ONLY picks the
# libraries (default "krv session,krv heap"). Per run and library: the copy's times at
# both sizes and the four 100 MB / 1 MB ratios that the goals check.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
rounds=$1; shift
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
grep -P '\tsynthetic_(1|100)MB\t' "$here/corpus/MANIFEST" > "$tmp/manifest"
for i in $(seq "$rounds"); do
  for lib in "$@"; do
    LD_LIBRARY_PATH="$lib" "$here/build/bench/krvbench_peers" --manifest "$tmp/manifest" \
      --only "${KRV_ONLY:-krv session,krv heap}" --json "$tmp/run.json" >/dev/null 2>&1
    python3 - "$tmp/run.json" "$lib" <<'PY'
import json, sys
runs = json.load(open(sys.argv[1]))
for lib in ('krv session', 'krv heap'):
    cells = {f['name']: r for f in runs['files'] for r in f['results'] if r['library'] == lib}
    if len(cells) != 2:
        continue
    a, b = cells['synthetic_1MB'], cells['synthetic_100MB']
    ratio = lambda op: b[op + '_s'] / a[op + '_s']
    print('%s %s: clone %.4f / %.2f ms; ratios parse %.1f print %.1f clone %.1f free %.1f' % (
        sys.argv[2], lib, a['clone_s'] * 1e3, b['clone_s'] * 1e3,
        ratio('parse'), ratio('print'), ratio('clone'), ratio('free')))
PY
  done
done
