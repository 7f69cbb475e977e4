#!/usr/bin/env python3
"""Writes OUT, a document of about 10.6 MB whose elements each carry N plain
attributes (attr0="value.." ... attrN-1), for timing tags of many attributes:
  python3 bench/scratch/wide_tags.py N OUT      (e.g. 30 /tmp/wide30.xml)"""
import sys

n, out = int(sys.argv[1]), sys.argv[2]
with open(out, "w") as f:
    f.write("<r>\n")
    for i in range(20000 // n * 30):
        f.write("  <e" + "".join(' attr%d="value%d"' % (j, (i * j) % 1000) for j in range(n)) + "/>\n")
    f.write("</r>\n")
