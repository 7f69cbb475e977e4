#!/usr/bin/env bash
# Builds the library and the krvxml tool on a fresh machine and runs
# `krvxml demo`. The tool stays at build/tools/krvxml/krvxml.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2 --target krvxml_cli
exec build/tools/krvxml/krvxml demo
