#!/usr/bin/env bash
# The board binary at work in the sandboxed board image, pulse on line 19:
# its CPU while steering (the poll of line 19 between pulses included; the
# commands it starts not), resident memory, and the delay from the pulse's
# rising edge to the cycle's first command. Steering starts after 60 valid
# cycles; the figures are taken over the SECONDS after that.
#   board_run.sh ZARVENT|PACKAGE.deb PULSE_WATCH [SECONDS]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
zarvent=$(readlink -f "$1") watch=$(readlink -f "$2") seconds=${3:-20}
. "$here/../tests/sandbox/board_image.sh"
image_check
ROOT=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-run-XXXXXX")
cleanup() { image_stop; rm -rf "$ROOT"; }
trap cleanup EXIT
image_make "$ROOT" "$zarvent"
image_start "$ROOT" 1
sleep 3
daemon=$(image_daemon_pid "$ROOT") || { echo "the daemon did not start"; exit 1; }
# Wait for steering: the DAC's set-up command before each steered second's word.
for _ in $(seq 90); do
    grep -q "spiWrite -m 1 -l 3 -d 1 10 " "$ROOT/log/commands.log" 2>/dev/null && break
    sleep 1
done
grep -q "spiWrite -m 1 -l 3 -d 1 10 " "$ROOT/log/commands.log" || { echo "no steering after 90 s"; exit 1; }
sleep 2
ticks() { awk '{ sub(/^.*\) /, ""); print $12 + $13 }' "/proc/$1/stat"; }
c0=$(grep -c "spiWrite -m 0 -l 6 -d 4 14" "$ROOT/log/commands.log") d0=$(ticks "$daemon") t0=$(date +%s.%N)
"$watch" "$ROOT" "$seconds" > "$ROOT/watch.txt"
c1=$(grep -c "spiWrite -m 0 -l 6 -d 4 14" "$ROOT/log/commands.log") d1=$(ticks "$daemon") t1=$(date +%s.%N)
hz=$(getconf CLK_TCK)
rss=$(awk '/^VmRSS/ { print $2 }' "/proc/$daemon/status")
hwm=$(awk '/^VmHWM/ { print $2 }' "/proc/$daemon/status")
awk -v d=$((d1 - d0)) -v c=$((c1 - c0)) -v hz="$hz" -v rss="$rss" -v hwm="$hwm" -v t0="$t0" -v t1="$t1" 'BEGIN {
    printf "CPU while steering                %.2f %% of a core (%d cycles in %.1f s)\n", 100 * d / hz / (t1 - t0), c, t1 - t0
    printf "resident memory                   %.2f MiB now, %.2f MiB peak\n", rss / 1024, hwm / 1024
}'
cat "$ROOT/watch.txt"
