#!/usr/bin/env bash
# Compares the names velmora.dll exports with the version script of the Linux library, less
# PostMessageA and PeekMessageA, which Windows itself provides. Usage: check_dll_exports.sh DLL MAP
set -euo pipefail
dll=$1 map=$2
objdump=x86_64-w64-mingw32-objdump
exported=$($objdump -p "$dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | grep -oE '\] [A-Za-z_][A-Za-z0-9_]*$' \
  | sed 's/^\] //' | grep -v '^Table$' | sort -u)
listed=$(grep -E '^    [A-Za-z_][A-Za-z0-9_]*;$' "$map" | tr -d ' ;' | grep -vE '^(PostMessageA|PeekMessageA)$' | sort -u)
status=0
if [ "$exported" != "$listed" ]; then
  echo "velmora.dll exports differ from the list:"
  diff <(echo "$listed") <(echo "$exported") || true
  status=1
fi
count=$(echo "$exported" | grep -c .)
# 119 exports of the driver, plus CreateNoticeWindow, DestroyNoticeWindow, GetMessageTimeout,
# GetNoticeWindowFd, SetComPortDevice and SetSimResponseHook.
if [ "$count" -ne 125 ]; then
  echo "expected 125 exports, velmora.dll has $count"
  status=1
fi
# Only system DLLs beside it: the MinGW runtime is linked in.
foreign=$($objdump -p "$dll" | awk '/DLL Name:/ {print $3}' | grep -viE '^(kernel32|user32|winmm|msvcrt|advapi32|ws2_32)\.dll$' || true)
if [ -n "$foreign" ]; then
  echo "velmora.dll needs DLLs that Windows does not have: $foreign"
  status=1
fi
[ $status -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $status
