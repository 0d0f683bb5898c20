#!/usr/bin/env bash
# Set-up, build and all tests (RelWithDebInfo). Extra arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/default -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/default -j2
ctest --test-dir build/default --output-on-failure -j2 "$@"
