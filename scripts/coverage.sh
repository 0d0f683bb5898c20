#!/usr/bin/env bash
# Line and branch coverage of the library (not of the tests, the simulator or the examples), per
# folder, from a gcov build running the whole suite. Extra arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh gcovr
build=${VELMORA_COVERAGE_DIR:-build/coverage}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DVELMORA_COVERAGE=ON >/dev/null
cmake --build "$build" -j2
find "$build" -name '*.gcda' -delete
# A failing test still leaves its coverage; report it and go on.
ctest --test-dir "$build" -j2 "$@" >"$build/ctest.log" 2>&1 || echo "coverage: some tests failed (see $build/ctest.log)"
tail -n 3 "$build/ctest.log"
library='(api|port|link|queues|diag|tables|codec|platform)/'
gcovr --root . --object-directory "$build" --filter "$library" \
  --exclude-throw-branches --exclude-unreachable-branches \
  --json-summary "$build/coverage.json" >/dev/null
python3 - "$build/coverage.json" <<'PY'
import collections, json, sys
totals = collections.defaultdict(lambda: [0, 0, 0, 0])
for f in json.load(open(sys.argv[1]))["files"]:
    row = totals[f["filename"].split("/")[0]]
    for i, key in enumerate(("line_covered", "line_total", "branch_covered", "branch_total")):
        row[i] += f[key]
totals["all"] = [sum(r[i] for r in list(totals.values())) for i in range(4)]
pct = lambda a, b: 100.0 * a / b if b else 100.0
print(f"{'folder':<10}{'lines':>16}{'':>9}{'branches':>16}")
for name, (lc, lt, bc, bt) in sorted(totals.items(), key=lambda kv: (kv[0] == "all", kv[0])):
    print(f"{name:<10}{lc:>7}/{lt:<7}{pct(lc, lt):6.1f}%  {bc:>7}/{bt:<7}{pct(bc, bt):6.1f}%")
PY
