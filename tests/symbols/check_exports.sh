#!/usr/bin/env bash
# Compares the dynamic symbols that libvelmora.so defines with its version script and with the
# exports declared in velmora.h. Usage: check_exports.sh LIBRARY MAP HEADER
set -euo pipefail
library=$1 map=$2 header=$3
exported=$(nm -D --defined-only "$library" | awk '{print $3}' | sed 's/@.*//' | grep -v '^VELMORA_1$' | sort -u)
listed=$(grep -E '^    [A-Za-z_][A-Za-z0-9_]*;$' "$map" | tr -d ' ;' | sort -u)
declared=$(grep -v '^#' "$header" | grep -oE 'VELMORA_API [^(]*\b([A-Za-z_][A-Za-z0-9_]*)\(' | sed -E 's/.*[ *]([A-Za-z_][A-Za-z0-9_]*)\($/\1/' | sort -u)
status=0
if [ "$exported" != "$listed" ]; then
  echo "exported symbols differ from the version script:"
  diff <(echo "$listed") <(echo "$exported") || true
  status=1
fi
if [ "$declared" != "$listed" ]; then
  echo "declarations in the header differ from the version script:"
  diff <(echo "$listed") <(echo "$declared") || true
  status=1
fi
count=$(echo "$listed" | wc -l)
# 119 exports of the driver, plus the notice API (6), SetComPortDevice and SetSimResponseHook.
if [ "$count" -ne 127 ]; then
  echo "expected 127 exports, the version script lists $count"
  status=1
fi
[ $status -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $status
