#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a
# consumer through find_package(kora) and checks the pkg-config file.
set -euo pipefail
build=$1 source=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
test -L "$scratch/prefix/lib/libkora.so" || test -L "$scratch/prefix/lib/x86_64-linux-gnu/libkora.so"
cmake -S "$source/consumer" -B "$scratch/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/consumer" >/dev/null
libdir=$(dirname "$(find "$scratch/prefix" -name 'libkora.so.*' | head -1)")
LD_LIBRARY_PATH="$libdir" "$scratch/consumer/consumer"
soname=$(objdump -p "$libdir/libkora.so" | awk '/SONAME/ {print $2}')
[[ "$soname" == libkora.so.* ]] || { echo "unexpected SONAME $soname"; exit 1; }
PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --libs kora | grep -q -- -lkora
# The installed command and Python module find the library on their own.
"$scratch/prefix/bin/kora" list native::ReLU | grep -q "^native::ReLU "
module=$(find "$scratch/prefix" -name 'kora.cpython*.so' | head -1)
if [ -n "$module" ]; then
  (cd "$scratch" && PYTHONPATH=$(dirname "$module") /usr/bin/python3 -c "import kora; assert kora.kernels('native::ReLU')")
fi
echo "installed, found by CMake and pkg-config; SONAME $soname; kora command${module:+ and Python module} run"
