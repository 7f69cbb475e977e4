#!/usr/bin/env bash
# Installs the built project to a temporary prefix, builds the examples
# against it (CMake package and pkg-config), runs them on a copy of
# examples/config.xml and checks what they wrote. Moves the installed tree
# once to show that the package and the .pc file are relocatable.
#   tests/packaging.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
src=$(cd "$2" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "packaging: $*" >&2; exit 1; }

# Examples built against a sanitized library need the same runtime.
san=$(sed -n 's/^KRVXML_SANITIZE:STRING=//p' "$build/CMakeCache.txt")
flags=""
[ -n "$san" ] && flags="-fsanitize=${san//;/,} -fno-omit-frame-pointer"
cc=$(sed -n 's/^CMAKE_C_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
cxx=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")

cmake --install "$build" --prefix "$work/stage" >/dev/null
mv "$work/stage" "$work/prefix"   # installed trees must work where they land
prefix=$work/prefix
libdir=$(dirname "$(find "$prefix" -name 'libkrvxml.so' | head -n1)")
[ -n "$libdir" ] || fail "libkrvxml.so not installed"
soname=$(objdump -p "$libdir/libkrvxml.so" | awk '$1 == "SONAME" {print $2}')
[ "$soname" = libkrvxml.so.2 ] || fail "SONAME is '$soname'"
for f in "$libdir/libkrvxml.so.2" "$prefix/include/krv_xml.h" "$prefix/include/krv_xml_component.h" \
         "$prefix/include/krv_xml.hpp"; do
  [ -e "$f" ] || fail "missing $f"
done
tool=""
if grep -q '^KRVXML_BUILD_TOOLS:BOOL=ON' "$build/CMakeCache.txt"; then
  tool=$prefix/bin/krvxml
  "$tool" check "$src/examples/config.xml" >/dev/null || fail "installed tool does not run"
fi

# Checks what an example wrote: the file parses and holds each pattern.
expect() {
  local file=$1; shift
  [ -z "$tool" ] || "$tool" check "$file" >/dev/null || fail "$file does not parse"
  for p in "$@"; do
    grep -qF -- "$p" "$file" || { cat "$file" >&2; fail "$file lacks $p"; }
  done
}
run_examples() {  # DIR-with-binaries LABEL
  cp "$src/examples/config.xml" "$work/c.xml"
  "$1/config_edit" "$work/c.xml" >/dev/null || fail "$2: C example failed"
  expect "$work/c.xml" 'port="8081"' '<connections>128</connections>' '<owner>operations</owner>'
  cp "$src/examples/config.xml" "$work/in.xml"
  "$1/config_edit_cpp" "$work/in.xml" "$work/cpp.xml" >/dev/null || fail "$2: C++ example failed"
  cmp -s "$src/examples/config.xml" "$work/in.xml" || fail "$2: C++ example changed its input"
  expect "$work/cpp.xml" '<backup keep="7" enabled="true"/>'
  ! grep -q 'secure="false"' "$work/cpp.xml" || fail "$2: a server stayed insecure"
}

# 1. CMake: find_package(krvxml CONFIG) from the installed tree.
cmake -S "$src/examples" -B "$work/ex" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release \
  ${cc:+-DCMAKE_C_COMPILER="$cc"} ${cxx:+-DCMAKE_CXX_COMPILER="$cxx"} \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$work/ex" >/dev/null
run_examples "$work/ex" cmake

# 2. pkg-config, as the README shows it.
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion krvxml)" = 2.1.9 ] || fail "pkg-config version"
mkdir -p "$work/pc"
rpath=-Wl,-rpath,$(pkg-config --variable=libdir krvxml)
# shellcheck disable=SC2046,SC2086
"${cc:-cc}" $flags "$src/examples/config_edit.c" $(pkg-config --cflags --libs krvxml) "$rpath" \
  -o "$work/pc/config_edit"
# shellcheck disable=SC2046,SC2086
"${cxx:-c++}" -std=c++17 $flags "$src/examples/config_edit.cpp" $(pkg-config --cflags --libs krvxml) "$rpath" \
  -o "$work/pc/config_edit_cpp"
run_examples "$work/pc" pkg-config
echo "packaging: install, CMake package, pkg-config and examples ok"
