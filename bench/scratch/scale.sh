#!/bin/bash
# Session parse at 1 MB and at 100 MB for any number of library builds, taken in turn:
#   bench/scratch/scale.sh ROUNDS LIBDIR...
# Per directory: the best of the per-process best times (200 parses of synthetic_1MB,
# 6 of synthetic_100MB) and their ratio. Needs /tmp/parse_median (see README).
export GLIBC_TUNABLES=glibc.malloc.trim_threshold=4000000000:glibc.malloc.mmap_threshold=4000000000
corpus="$(dirname "$0")/../corpus"
r=$1; shift
for i in $(seq "$r"); do
  for L in "$@"; do
    a=$(LD_LIBRARY_PATH=$L /tmp/parse_median "$corpus/synthetic_1MB.xml" 1 200 | awk '{print $4}')
    b=$(LD_LIBRARY_PATH=$L /tmp/parse_median "$corpus/synthetic_100MB.xml" 1 6 | awk '{print $4}')
    echo "$L $a $b"
  done
done | awk '{k=$1; if(!(k in a)||$2<a[k])a[k]=$2; if(!(k in b)||$3<b[k])b[k]=$3}
  END{for(k in a) printf "%s 1MB %.3f ms 100MB %.2f ms ratio %.1f\n", k, a[k], b[k], b[k]/a[k]}'
