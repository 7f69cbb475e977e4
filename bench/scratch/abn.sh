#!/bin/bash
# ab.sh for any number of library builds, taken in turn each round:
#   bench/scratch/abn.sh FILE MODE ROUNDS REPS LIBDIR...
# Each LIBDIR holds a libkrvxml.so.2; prints, per directory, the smallest median of the
# ROUNDS processes and all of them.
export GLIBC_TUNABLES=glibc.malloc.trim_threshold=4000000000:glibc.malloc.mmap_threshold=4000000000
f=$1; m=$2; r=$3; n=$4; shift 4
for i in $(seq "$r"); do
  for L in "$@"; do echo "$L $(LD_LIBRARY_PATH=$L /tmp/parse_median "$f" "$m" "$n" | awk '{print $6}')"; done
done | sort -k1,1 -k2,2n | awk '{if(!($1 in m)){m[$1]=$2}; a[$1]=a[$1]" "$2} END{for(k in m) print k, "min-median", m[k], "all:", a[k]}'
