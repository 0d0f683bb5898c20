#!/usr/bin/env bash
# Builds velmora.dll and the Windows test programs with MinGW-w64, then runs them under Wine
# against velmora-sim, which is built for Linux first. Installs what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh g++-mingw-w64-x86-64-posix wine64 wine python3 gcc
cmake -S . -B build/default >/dev/null
cmake --build build/default -j2 --target velmora-sim
cmake -S . -B build/win -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-posix.cmake \
  -DVELMORA_SIM="$PWD/build/default/sim/velmora-sim" >/dev/null
cmake --build build/win -j2
ctest --test-dir build/win --output-on-failure
