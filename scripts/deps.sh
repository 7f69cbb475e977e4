#!/usr/bin/env bash
# Installs the Debian packages the build and tests need, when any is missing.
# Needs root for apt-get; without root it only reports what is missing.
set -euo pipefail
pkgs=(cmake ninja-build g++ clang llvm-14 libclang-rt-14-dev libgtest-dev libgmock-dev
      libbenchmark-dev pkg-config valgrind python3 "$@")
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages (install them as root): ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
