#!/bin/bash
# Floors of heap release or heap clone at 1 MB and 100 MB with one library build, and
# their ratio: the best of 3 processes x 39 passes at 1 MB and 2 x 5 passes at 100 MB.
#   bench/scratch/floor.sh free|clone LIBDIR      (drivers built as in README.md)
cd "$(dirname "$0")/../corpus" || exit 1
if [ "$1" = free ]; then run() { LD_LIBRARY_PATH=$2 /tmp/heap_free_loop "$1" "$3"; }; col=4
else run() { LD_LIBRARY_PATH=$2 /tmp/cycle "$1" "$3"; }; col=8; fi
a=$(for i in 1 2 3; do run synthetic_1MB.xml "$2" 40 | tail -39 | awk -v c=$col '{print $c}'; done | sort -n | head -1)
b=$(for i in 1 2; do run synthetic_100MB.xml "$2" 6 | tail -5 | awk -v c=$col '{print $c}'; done | sort -n | head -1)
echo "$1 1MB $a ms 100MB $b ms ratio $(echo "$b / $a" | bc -l | cut -c1-6)"
