#!/usr/bin/env bash
# Runs one Windows test program under Wine, with simulated field devices reachable as COM ports.
#
#   scripts/wine-test.sh --sim PATH_TO_velmora-sim --shim PATH_TO_modem_shim.so
#                        [--modem-log FILE] [--prefix DIR] [--timeout SECONDS] [--logs DIR]
#                        PROGRAM.exe [ARGS...]
#
# The program asks tests/win32/sim_broker.py for simulators through the control directory named
# in VELMORA_SIM_BROKER (a Windows path). modem_shim.so is preloaded into every Wine process so
# RTS/DTR work on the simulators' pseudo-terminals; VELMORA_MODEM_LOG is passed on to it.
#
# --prefix DIR  keeps a Wine prefix in DIR and reuses it (initialising it takes ~10 s); runs that
#               share DIR wait for each other. Without it a throw-away prefix is made per run.
# --timeout S   ends the program after S seconds (exit status 124).
# --logs DIR    copies the broker's and the simulators' logs to DIR.
#
# Exit status: the program's (Windows exit codes are truncated to 8 bits), 124 on timeout,
# 125 when the harness itself could not be set up.
set -uo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
broker_py=$here/tests/win32/sim_broker.py

usage() { sed -n '2,19s/^# \{0,1\}//p' "$0"; }
fail() { echo "wine-test: $*" >&2; exit 125; }
note() { echo "wine-test: $*" >&2; }

sim='' shim='' modem_log='' prefix='' timeout_s='' logs=''
while [ $# -gt 0 ]; do
  case "$1" in
    --sim) sim=${2:?}; shift 2 ;;
    --shim) shim=${2:?}; shift 2 ;;
    --modem-log) modem_log=${2:?}; shift 2 ;;
    --prefix) prefix=${2:?}; shift 2 ;;
    --timeout) timeout_s=${2:?}; shift 2 ;;
    --logs) logs=${2:?}; shift 2 ;;
    -h | --help) usage; exit 0 ;;
    --) shift; break ;;
    -*) usage >&2; fail "unknown option $1" ;;
    *) break ;;
  esac
done
[ $# -ge 1 ] || { usage >&2; fail "no program given"; }
program=$1
shift

if [ -z "$sim" ] || [ ! -x "$sim" ]; then fail "--sim: velmora-sim not found or not executable: '$sim'"; fi
if [ -z "$shim" ] || [ ! -f "$shim" ]; then fail "--shim: modem_shim.so not found: '$shim'"; fi
[ -f "$program" ] || fail "program not found: $program"
for tool in wine wineserver wineboot python3 flock timeout; do
  command -v "$tool" >/dev/null || fail "$tool is needed"
done
abspath() { case "$1" in /*) printf '%s' "$1" ;; *) printf '%s/%s' "$PWD" "$1" ;; esac; }
sim=$(abspath "$sim")
shim=$(abspath "$shim")
program=$(abspath "$program")
[ -n "$modem_log" ] && modem_log=$(abspath "$modem_log")
[ -n "$logs" ] && logs=$(abspath "$logs")

work=$(mktemp -d "${TMPDIR:-/tmp}/velmora-wine.XXXXXX") || fail "cannot make a temporary directory"
control=$work/control
wine_used=''
broker_pid=''
wine_pid=''
status=125
finished=''

# shellcheck disable=SC2317  # runs from the traps below
cleanup() {
  trap - EXIT INT TERM HUP
  if [ -n "$wine_used" ] && [ -z "$finished" ]; then
    # Interrupted: end every Wine process of this prefix before the devices go away.
    [ -n "$wine_pid" ] && kill -TERM "$wine_pid" 2>/dev/null
    wineserver -k >/dev/null 2>&1
  fi
  if [ -n "$broker_pid" ]; then
    kill -TERM "$broker_pid" 2>/dev/null
    wait "$broker_pid" 2>/dev/null
  fi
  if [ -n "$logs" ]; then
    mkdir -p "$logs" && cp -p "$control"/*.log "$logs"/ 2>/dev/null
  fi
  if [ "$status" -ne 0 ] && [ -s "$control/broker.log" ]; then
    note "broker log:"
    sed 's/^/  /' "$control/broker.log" >&2
  fi
  rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT
trap 'note "interrupted"; status=130; exit' INT
trap 'note "terminated"; status=143; exit' TERM
trap 'note "hung up"; status=129; exit' HUP

mkdir -p "$control"
if [ -n "$prefix" ]; then
  prefix=$(abspath "$prefix")
  mkdir -p "$(dirname "$prefix")"
  # One run at a time per prefix: they would share one wine server, and wineserver -w would
  # wait for the other run's programs.
  exec 9>"${prefix%/}.lock" || fail "cannot create ${prefix%/}.lock"
  flock 9
else
  prefix=$work/prefix
fi

export WINEPREFIX=$prefix
export WINEARCH=win64
export WINEDEBUG=${WINEDEBUG:--all,err+module}
# No desktop integration files in $HOME, and no attempt to fetch runtimes nobody needs.
export WINEDLLOVERRIDES="winemenubuilder.exe=d;mscoree,mshtml=${WINEDLLOVERRIDES:+;$WINEDLLOVERRIDES}"
unset DISPLAY WAYLAND_DISPLAY
wine_used=1

initialised() {
  [ -f "$prefix/system.reg" ] && [ -f "$prefix/.update-timestamp" ] && [ -d "$prefix/dosdevices" ]
}

t0=$(date +%s%N)
if ! initialised; then
  wineboot --init >"$work/wineboot.log" 2>&1 9>&-
  # The server started by wineboot saves the registry when it exits.
  wineserver -w 9>&-
  initialised || { cat "$work/wineboot.log" >&2; fail "wineboot --init did not set up $prefix"; }
  note "prefix $prefix initialised in $(( ($(date +%s%N) - t0) / 1000000 )) ms"
fi

# Links to simulator ptys left by an earlier run that did not finish; no other run is using the
# prefix now (lock above), and the broker must find the numbers free.
for link in "$prefix"/dosdevices/com*; do
  [ -L "$link" ] || continue
  n=${link##*/com}
  case "$n" in '' | *[!0-9]*) continue ;; esac
  [ "$n" -ge 10 ] && case "$(readlink "$link")" in /dev/pts/*) rm -f "$link" ;; esac
done

# The wine server opens the COM ports itself, so it needs the shim too (see modem_shim.c).
# -p0: it exits as soon as the last Wine process has, so wineserver -w at the end is quick.
LD_PRELOAD="$shim${LD_PRELOAD:+:$LD_PRELOAD}" wineserver -p0 >/dev/null 2>&1 9>&-

python3 "$broker_py" --dir "$control" --sim "$sim" --prefix "$prefix" 2>"$control/broker.log" 9>&- &
broker_pid=$!
for _ in $(seq 1 500); do
  [ -f "$control/broker.pid" ] && break
  kill -0 "$broker_pid" 2>/dev/null || break
  sleep 0.02
done
[ -f "$control/broker.pid" ] || { cat "$control/broker.log" >&2; fail "the simulator broker did not start"; }

# Z: is the whole Unix file system in a default prefix; anything else is asked of winepath.
if [ "$(readlink "$prefix/dosdevices/z:")" = "/" ]; then
  broker_dir="Z:${control//\//\\}"
else
  broker_dir=$(wine winepath -w "$control" 2>/dev/null 9>&- | tr -d '\r')
  [ -n "$broker_dir" ] || fail "no Windows path for $control"
fi
export VELMORA_SIM_BROKER=$broker_dir
if [ -n "$modem_log" ]; then
  export VELMORA_MODEM_LOG=$modem_log
else
  unset VELMORA_MODEM_LOG
fi

run=(wine "$program" "$@")
[ -n "$timeout_s" ] && run=(timeout --kill-after=10 "$timeout_s" "${run[@]}")
t1=$(date +%s%N)
# In the background so that a signal to this script is handled at once, not after the program.
LD_PRELOAD="$shim${LD_PRELOAD:+:$LD_PRELOAD}" "${run[@]}" 9>&- &
wine_pid=$!
wait "$wine_pid"
status=$?
wine_pid=''
t2=$(date +%s%N)
[ "$status" -eq 124 ] && [ -n "$timeout_s" ] && { note "timed out after $timeout_s s"; wineserver -k >/dev/null 2>&1; }

# Wine finishes (and lets go of every pty) before the simulators are stopped. A process the
# program left behind would keep the server up for ever, so that wait is bounded.
if ! timeout 60 wineserver -w 9>&-; then
  note "Wine processes still running 60 s after the program ended; killing them"
  wineserver -k >/dev/null 2>&1
fi
finished=1
t3=$(date +%s%N)
if [ -n "${VELMORA_WINE_TIMES:-}" ]; then
  note "setup $(( (t1 - t0) / 1000000 )) ms, program $(( (t2 - t1) / 1000000 )) ms, wine exit $(( (t3 - t2) / 1000000 )) ms"
fi
exit "$status"
