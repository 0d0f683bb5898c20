#!/usr/bin/env bash
# The main job against the built-in simulated device: set-up, build, then the velmora tool finds
# three simulated devices on a loop and reads one of them. Each --sim starts velmora-sim on a
# pseudo-terminal for that command. Extra arguments go to both commands (say --baud 9600).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/default -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/default --target velmora-sim velmora_cli read_device -j2 >/dev/null

velmora=build/default/tools/velmora
echo "\$ velmora scan --sim --devices 3"
"$velmora" scan --sim --devices 3 "$@"
echo
echo "\$ velmora read --sim --devices 3 --address 2"
"$velmora" read --sim --devices 3 --address 2 "$@"
