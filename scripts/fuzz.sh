#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for SECONDS (default 30) on a scratch copy
# of its seeds, so the checked-in corpus never grows. Fails if clang is missing or any target
# crashes, leaks, times out or reports undefined behaviour; the input that did it is kept in the
# run's artifacts directory and named in the output. Usable from CI: ./scripts/fuzz.sh 30
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
[[ $seconds =~ ^[0-9]+$ && $seconds -gt 0 ]] || { echo "usage: $0 [SECONDS]" >&2; exit 2; }
for tool in clang clang++; do
  command -v "$tool" >/dev/null || { echo "fuzz: $tool not found; the fuzz targets need clang" >&2; exit 1; }
done
build=${VELMORA_FUZZ_DIR:-build/fuzz}
CC=clang CXX=clang++ cmake -S . -B "$build" -DVELMORA_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target velmora_fuzz -j2

# Longest input worth trying per target: a few frames in chunks, one frame array, one line.
declare -A max_len=([receiver_fuzz]=2048 [frame_dump_fuzz]=1024 [text_fuzz]=1024 [data_syntax_fuzz]=512
                    [field_fuzz]=600 [history_fuzz]=4096)
# Undefined behaviour stops the run like a crash does.
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
work=$(mktemp -d "${TMPDIR:-/tmp}/velmora-fuzz.XXXXXX")
failed=()
for source in tests/fuzz/*_fuzz.cpp; do
  name=$(basename "$source" .cpp)
  mkdir -p "$work/$name/corpus" "$work/$name/artifacts"
  if [[ -d tests/fuzz/corpus/$name ]]; then cp tests/fuzz/corpus/"$name"/* "$work/$name/corpus/"; fi
  echo "fuzz: $name for ${seconds}s"
  if "$build/tests/fuzz/$name" "$work/$name/corpus" -max_total_time="$seconds" -max_len="${max_len[$name]:-1024}" \
       -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$work/$name/artifacts/" \
       >"$work/$name/log" 2>&1; then
    grep -E '^stat::number_of_executed_units|^#[0-9]+.*DONE' "$work/$name/log" | tail -n 2
  else
    failed+=("$name")
    grep -E 'ERROR|runtime error|SUMMARY|deadly signal|Test unit written' "$work/$name/log" | head -n 8 || true
    echo "fuzz: $name FAILED; log $work/$name/log"
  fi
done
if ((${#failed[@]})); then
  echo "fuzz: failed: ${failed[*]} (inputs in $work/<target>/artifacts)" >&2
  exit 1
fi
echo "fuzz: all targets ran ${seconds}s clean"
rm -rf "$work"
