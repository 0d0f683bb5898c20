#!/usr/bin/env bash
# Usage: install_smoke.sh BUILD_DIR CLIENT_SOURCE SCRATCH
set -euo pipefail
build=$1 client=$2 scratch=$3
rm -rf "$scratch"
prefix="$scratch/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(find "$prefix" -name libvelmora.so -printf '%h\n' | head -n 1)
cmake -S "$client" -B "$scratch/cmake-client" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/cmake-client" >/dev/null
LD_LIBRARY_PATH="$libdir" "$scratch/cmake-client/client"
# The package file names the configured prefix; point it at the scratch one.
flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --define-variable=prefix="$prefix" --cflags --libs velmora)
c++ -std=c++20 "$client/client.cpp" -o "$scratch/pc-client" $flags
LD_LIBRARY_PATH="$libdir" "$scratch/pc-client"
echo "1 passed, 0 failed"
