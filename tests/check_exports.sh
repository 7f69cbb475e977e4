#!/bin/sh
# Compares the dynamic symbols that the library defines with the functions
# that the public headers declare with KRV_XML_API. Any difference fails.
set -eu
lib=$1
inc=$2
declared=$(mktemp)
exported=$(mktemp)
trap 'rm -f "$declared" "$exported"' EXIT
cat "$inc"/krv_xml.h "$inc"/krv_xml_component.h | grep -v "^[[:space:]]*#" | tr '\n' ' ' | grep -o 'KRV_XML_API[^(;]*(' |
  sed -E 's/.*[^A-Za-z0-9_]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*\($/\1/' | sort -u >"$declared"
nm -D --defined-only "$lib" | awk '$2 ~ /^[TtWwDdBbVvRr]$/ {print $3}' |
  grep -v -E '^(_init|_fini|_edata|_end|__bss_start)$' | sort -u >"$exported"
if ! diff -u "$declared" "$exported"; then
  echo "exported symbols differ from the declared interface (- declared only, + exported only)"
  exit 1
fi
echo "$(wc -l <"$exported") exported functions, all declared"
