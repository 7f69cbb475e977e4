#!/bin/bash
# Where the 100 MB session parse or clone spends more per MB than the 1 MB one:
#   bench/scratch/perf_scale.sh parse|clone [LIBDIR]
# perf (cpu-clock) samples of runs with few and with many repetitions, per
# file; the difference is warm work only (the first, cold pass cancels out).
# Prints ms per input MB by function at 100 MB and at 1 MB. KRV_MODE=0 times
# the heap parse (and its release) instead of the session parse. Needs
# /tmp/parse_median and /tmp/clone_median (see README).
set -e
export GLIBC_TUNABLES=glibc.malloc.trim_threshold=4000000000:glibc.malloc.mmap_threshold=4000000000
corpus="$(cd "$(dirname "$0")/../corpus" && pwd)"
op=$1
[ -n "$2" ] && export LD_LIBRARY_PATH=$2
run() {  # file reps out
  if [ "$op" = clone ]; then set -- /tmp/clone_median "$1" "$2" "$3"; else set -- /tmp/parse_median "$1" "${KRV_MODE:-1}" "$2" "$3"; fi
  out=${@: -1}
  perf record -q -e cpu-clock -o /tmp/perf_scale.data "${@:1:$#-1}" >/dev/null 2>&1
  perf report -i /tmp/perf_scale.data --no-children --sort sym -F sample,sym 2>/dev/null |
    grep -v '^#' | awk 'NF>=2{print $1, $NF}' > "$out"
}
run "$corpus/synthetic_100MB.xml" 6 /tmp/perf_scale.a100
run "$corpus/synthetic_100MB.xml" 26 /tmp/perf_scale.b100
run "$corpus/synthetic_1MB.xml" 300 /tmp/perf_scale.a1
run "$corpus/synthetic_1MB.xml" 2300 /tmp/perf_scale.b1
hz=$(perf report -i /tmp/perf_scale.data --header-only 2>/dev/null | sed -n 's/.*sample_freq[ }]* = \([0-9]*\).*/\1/p' | head -1)
python3 - "${hz:-4000}" <<'E'
import sys
ms = 1000.0 / float(sys.argv[1])  # ms per sample
def load(f):
    d = {}
    for line in open(f):
        n, name = line.split(None, 1)
        d[name.strip()] = d.get(name.strip(), 0) + int(n)
    return d
a100, b100, a1, b1 = (load('/tmp/perf_scale.' + x) for x in ('a100', 'b100', 'a1', 'b1'))
rows = []
for k in set(b100) | set(b1):
    big = (b100.get(k, 0) - a100.get(k, 0)) * ms / 20 / 100   # 20 runs of 100 MB
    small = (b1.get(k, 0) - a1.get(k, 0)) * ms / 2000        # 2000 runs of 1 MB
    rows.append((big, small, k))
rows.sort(reverse=True)
tb = sum(r[0] for r in rows); ts = sum(r[1] for r in rows)
print("ms per MB: 100 MB %.3f, 1 MB %.3f, ratio of means x100 = %.1f" % (tb, ts, 100 * tb / ts))
for big, small, k in rows[:14]:
    print("%8.4f %8.4f %+8.4f  %s" % (big, small, big - small, k))
E
