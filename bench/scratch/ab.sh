#!/bin/bash
# Compares two builds of the library on one file, interleaved: copy one libkrvxml.so.2 to
# /tmp/libA and the other to /tmp/libB, build parse_median against either (see README), then
#   bench/scratch/ab.sh FILE MODE ROUNDS REPS
# prints, per library, the smallest median parse time of ROUNDS processes and all of them.
export GLIBC_TUNABLES=glibc.malloc.trim_threshold=4000000000:glibc.malloc.mmap_threshold=4000000000
for i in $(seq "$3"); do
  for L in A B; do echo "$L $(LD_LIBRARY_PATH=/tmp/lib$L /tmp/parse_median "$1" "$2" "$4" | awk '{print $6}')"; done
done | sort -k1,1 -k2,2n | awk '{if(!($1 in m)){m[$1]=$2}; a[$1]=a[$1]" "$2} END{for(k in m) print k, "min-median", m[k], "all:", a[k]}'
