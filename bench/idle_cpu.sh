#!/usr/bin/env bash
# CPU time of the board binary with no pulse on line 19 (the cycle thread
# polling, the supervision loop running, the FPGA thread idle), measured side
# by side with a bare usleep(500) loop over the same seconds.
#   idle_cpu.sh ZARVENT USLEEP_LOOP [SECONDS]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
zarvent=$(readlink -f "$1") loop=$(readlink -f "$2") seconds=${3:-20}
. "$here/../tests/sandbox/board_image.sh"
image_check
ROOT=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-idle-XXXXXX")
cleanup() { [ -n "${LOOP_PID:-}" ] && kill "$LOOP_PID" 2>/dev/null; image_stop; rm -rf "$ROOT"; }
trap cleanup EXIT
image_make "$ROOT" "$zarvent"
image_start "$ROOT" 0
sleep 3 # start-up: the RAM disk commands, the FPGA load
daemon=$(image_daemon_pid "$ROOT") || { echo "the daemon did not start"; exit 1; }
"$loop" & LOOP_PID=$!
ticks() { awk '{ sub(/^.*\) /, ""); print $12 + $13 }' "/proc/$1/stat"; }
d0=$(ticks "$daemon") l0=$(ticks "$LOOP_PID") t0=$(date +%s.%N)
sleep "$seconds"
d1=$(ticks "$daemon") l1=$(ticks "$LOOP_PID") t1=$(date +%s.%N)
hz=$(getconf CLK_TCK)
awk -v d=$((d1 - d0)) -v l=$((l1 - l0)) -v hz="$hz" -v t0="$t0" -v t1="$t1" 'BEGIN {
    wall = t1 - t0
    printf "idle CPU over %.1f s: zarvent %.2f %% of a core, bare usleep(500) loop %.2f %%, difference %+.2f points\n",
        wall, 100 * d / hz / wall, 100 * l / hz / wall, 100 * (d - l) / hz / wall
}'
