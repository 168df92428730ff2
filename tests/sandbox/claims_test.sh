#!/usr/bin/env bash
# What the FPGA is told, by the production zarvent in the sandboxed board
# image (board_image.sh), its pulse on the clock's own seconds (four a second,
# so that 60 valid cycles take 15 s): a peer query that takes 10 s keeps the
# reference; an ntpd that never answers clockvar stops the steering; with the
# pulse 0.4 s after the second no hand-over is opened while steering goes on;
# pulses that stop withdraw the steering until they return; SIGTERM leaves
# the sync and reference-valid bits cleared and the other bits as they were.
# A first load of the FPGA that never ends is followed by another.
#   claims_test.sh PATH_TO_ZARVENT [loader]
set -euo pipefail
ZARVENT=$(readlink -f "$1")
. "$(dirname "$0")/board_image.sh"
image_check
ROOT=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-claims-XXXXXX")
trap 'image_stop; rm -rf "$ROOT"' EXIT
image_make "$ROOT" "$ZARVENT"

fail() { echo "FAIL: $*"; tail -n 5 "$ROOT/log/stderr"; exit 1; }
log() { cat "$ROOT/log/commands.log"; }
bit() { echo $(($(cat "$ROOT/fpga/reg$1" 2>/dev/null || echo 0) & 1)); }
within() { # within SECONDS COMMAND...: true once COMMAND holds
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$end" ] || return 1
        sleep 0.2
    done
}
synced() { [ "$(bit 1)" = 1 ]; }
unsynced() { [ "$(bit 1)" = 0 ]; }
count() { log | grep -c -- "$1" || true; }

if [ "${2:-}" = loader ]; then
    # Killed at its 2-minute deadline, the loader runs again and the FPGA
    # answers: within 4 minutes.
    touch "$ROOT/fake/loader-hang"
    image_start "$ROOT" 0
    within 240 eval '[ "$(count "wrFPGA --file")" = 2 ] && [ "$(count "spiWrite -m 1 -l 3 -d 1 1 ")" -ge 1 ]' ||
        fail "loads: $(count "wrFPGA --file"), readiness writes: $(count "spiWrite -m 1 -l 3 -d 1 1 ")"
    grep -q "the FPGA loader was killed at its deadline; loading the FPGA again" "$ROOT/log/stderr" ||
        fail "standard error: $(cat "$ROOT/log/stderr")"
    echo "loaded again after a loader that never returned, $SECONDS s"
    exit 0
fi

echo 25 > "$ROOT/fpga/reg2" # bits 0, 3 and 4
image_start "$ROOT" 4
within 60 synced || fail "not steering after 60 s"

# ntpq -p 10 s a call: two answers later the reference, the bit and no alarm.
touch "$ROOT/fake/peers-slow"
slow=$(count "^ntpq -p")
within 40 eval '[ "$(count "^ntpq -p")" -ge $((slow + 3)) ]' || fail "no slow ntpq -p answered"
page=$ROOT/ramcache/zarvent/ntp_data.txt
grep -q "^<b>Reference time:</b>    GPS+GLONASS$" "$page" || fail "reference with a slow ntpq -p"
! grep -q "Alarm at" "$page" || fail "alarm with a slow ntpq -p"
[ "$(bit 2)" = 1 ] || fail "the reference-valid bit cleared with a slow ntpq -p"
rm "$ROOT/fake/peers-slow"

# ntpq -c clockvar never answers: the sync bit goes within 40 s.
touch "$ROOT/fake/clockvar-hang"
within 40 unsynced || fail "the sync bit still set 40 s after clockvar stopped answering"
rm "$ROOT/fake/clockvar-hang"
within 60 synced || fail "not steering again after clockvar answered"

# The pulse 0.4 s after the second: steering goes on, no hand-over opens.
echo late > "$ROOT/pulse.mode"
sleep 3
opened=$(count "spiWrite -m 1 -l 3 -d 1 10 ") steered=$(count "spiWrite -m 1 -l 3 -d 1 1 ")
sleep 5
[ "$(count "spiWrite -m 1 -l 3 -d 1 10 ")" = "$opened" ] || fail "hand-overs opened off the second"
[ "$(count "spiWrite -m 1 -l 3 -d 1 1 ")" -ge $((steered + 3)) ] && synced ||
    fail "steering stopped with the pulse off the second"

# No pulse: the sync bit goes within 10 s; back, it is set again.
echo off > "$ROOT/pulse.mode"
within 10 unsynced || fail "the sync bit still set 10 s after the pulse stopped"
echo 4 > "$ROOT/pulse.mode"
within 60 synced || fail "not steering again after the pulse returned"

# SIGTERM while steered.
kill -TERM "$(image_daemon_pid "$ROOT")"
within 15 eval '! kill -0 "$IMAGE_PID" 2>/dev/null' || fail "still running 15 s after SIGTERM"
[ "$(bit 1)" = 0 ] && [ "$(cat "$ROOT/fpga/reg2")" = 24 ] ||
    fail "registers 1 and 2 read $(cat "$ROOT/fpga/reg1") and $(cat "$ROOT/fpga/reg2") after the stop"
[ ! -e "$ROOT/ramcache/zarvent/metrics/zarvent.prom" ] || fail "the metrics stay after the stop"
for message in "no pulse from the FPGA for 3 s" "the FPGA's pulse is back" \
    "ms from the top of a second"; do
    [ "$(grep -c "$message" "$ROOT/log/stderr")" = 1 ] || fail "standard error: $(cat "$ROOT/log/stderr")"
done
echo "claims withdrawn and restored as the board's state changed, $SECONDS s"
