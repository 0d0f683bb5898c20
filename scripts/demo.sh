#!/usr/bin/env bash
# The main job against the built-in simulated device: builds the library, the simulator and the
# example client, starts velmora-sim on a pseudo-terminal, and reads the device through it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/default -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/default --target velmora-sim read_device -j2 >/dev/null

sim_out=$(mktemp)
build/default/sim/velmora-sim "$@" >"$sim_out" &
sim_pid=$!
trap 'kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; rm -f "$sim_out"' EXIT
# The simulator prints its pseudo-terminal's path as its first line once it is ready.
for _ in $(seq 1 100); do
  [ -s "$sim_out" ] && break
  sleep 0.05
done
pty=$(head -n 1 "$sim_out" | awk '{print $NF}')
echo "velmora-sim is listening on $pty"
build/default/examples/read_device "$pty"
