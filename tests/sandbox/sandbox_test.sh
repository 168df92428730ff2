#!/usr/bin/env bash
# The production zarvent, unchanged, for a short real-time run in a sandboxed
# board image (board_image.sh): start-up beside a console that keeps its pipe,
# one cycle per pulse, the status page and the error log, a time zone set
# while it runs, a tool that goes missing, a register tool that hangs, a
# second instance, and a stop while a tool hangs.
#   sandbox_test.sh PATH_TO_ZARVENT    the binary
#   sandbox_test.sh PACKAGE.deb        the package's daemon, as installed
# Exit 77 (skipped) when namespaces, chroot or busybox are not available.
set -euo pipefail
ZARVENT=$(readlink -f "$1")
. "$(dirname "$0")/board_image.sh"
image_check

ROOT=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-sandbox-XXXXXX")
cleanup() {
    image_stop
    [ -n "${ZARVENT_KEEP_SANDBOX:-}" ] && echo "kept $ROOT" || rm -rf "$ROOT"
}
trap cleanup EXIT
image_make "$ROOT" "$ZARVENT"
image_start "$ROOT" 1

fail() { echo "FAIL: $*"; echo "--- commands"; tail -n 40 "$ROOT/log/commands.log" || true; exit 1; }
log() { cat "$ROOT/log/commands.log"; }

sleep 8
kill -0 "$IMAGE_PID" 2>/dev/null || fail "the daemon ended"
Z=$ROOT/ramcache/zarvent
[ -f "$Z/ntp.drift" ] || fail "no ntp.drift"
ls "$Z"/*.time >/dev/null 2>&1 || fail "no start-time marker"
for i in 1 2 3; do [ -f "$Z/ptp_data_0000_00_0$i" ] || fail "no placeholder $i"; done
for c in "mkfs -q /dev/ram1 8192" "agetty -h 115200 ttyO1 vt100" "adjtimex -t 10082" \
         "wrFPGA --file Version_1.rbf"; do
    log | grep -qx "$c" || fail "$c not run"
done
grep -q "^CapInh:	0000000000000000" "/proc/$(image_daemon_pid "$ROOT")/status" ||
    fail "the daemon holds inheritable capabilities"

# One cycle per pulse: the offset readout reads register 14 once per cycle,
# and the pulse writer marks each rising edge in the command log. No pulse
# may hold two cycles; on a loaded machine a cycle can outlast a second, so
# only most pulses need one.
pulses=$(wc -l < "$ROOT/log/pulses")
cycles=$(log | grep -c "spiWrite -m 0 -l 6 -d 4 14 0 0 0 0" || true)
most=$(log | awk '/^-- pulse/ { n = 0 } /spiWrite -m 0 -l 6 -d 4 14 / { if (++n > m) m = n } END { print m + 0 }')
echo "pulses $pulses cycles $cycles, at most $most in one pulse"
[ "$most" -le 1 ] || fail "$most cycles after one pulse"
[ "$cycles" -ge $((pulses / 2)) ] || fail "cycles $cycles for $pulses pulses"

page=$(cat "$Z/ntp_data.txt") || fail "no status page"
today=$(date -u "+%b %e %Y")
echo "$page" | head -n 3 | grep -q "<b>Date:</b>	$today" || fail "status page date: $(echo "$page" | head -n 3)"
echo "$page" | grep -q "^<b>Current Offset \[ns\]:</b>	-50$" || fail "offset line"
echo "$page" | grep -q "^<b>Reference time:</b>    GPS+GLONASS$" || fail "reference line"
echo "$page" | grep -q "^<b>Antenna:</b> Ok$" || fail "antenna line"
grep -q "Reference time: GPS+GLONASS$" "$Z/errorlog.log" || fail "errorlog"

# A time zone set while the daemon runs (five hours east of UTC) stamps the
# next error-log line; then ntpq goes missing: the daemon keeps running and
# says so on the page.
zone=/usr/share/zoneinfo/Etc/GMT-5
[ -f "$zone" ] && cp "$zone" "$ROOT/etc/localtime"
rm "$ROOT/bin/ntpq"
before=$(log | grep -c "spiWrite -m 0 -l 6 -d 4 14")
# Five seconds, longer on a loaded machine, for a supervision pass to notice.
for _ in $(seq 15); do
    sleep 1
    after=$(log | grep -c "spiWrite -m 0 -l 6 -d 4 14")
    # The page shows the change at the first cycle after the pass.
    [ "$after" -ge $((before + 3)) ] && grep -q "Reference time: NULL$" "$Z/errorlog.log" &&
        grep -q "^<b>Reference time:</b>    NULL$" "$Z/ntp_data.txt" && break
done
kill -0 "$IMAGE_PID" 2>/dev/null || fail "the daemon ended without ntpq"
[ "$after" -ge $((before + 3)) ] || fail "cycles stopped without ntpq ($before -> $after)"
grep -q "Reference time: NULL$" "$Z/errorlog.log" || fail "no NULL reference in the errorlog"
grep -q "^<b>Reference time:</b>    NULL$" "$Z/ntp_data.txt" || fail "page reference without ntpq"
if [ -f "$zone" ]; then
    stamp=$(grep "Reference time: NULL$" "$Z/errorlog.log" | tail -n 1 | cut -c7-8)
    now=$(date +%s)
    case "$stamp" in
    "$(TZ=Etc/GMT-5 date -d @$((now - 20)) +%H)" | "$(TZ=Etc/GMT-5 date -d @$now +%H)") ;;
    *) fail "the error log's hour $stamp is not the new zone's" ;;
    esac
fi
cycles() { log | grep -c "spiWrite -m 0 -l 6 -d 4 14" || true; }
hangs() { log | grep -c "^-- hang" || true; }

# One register command hangs (a wedged SPI controller): it is killed with its
# group at its deadline, the cycles go on, and standard error names it once.
touch "$ROOT/fpga/hang"
for _ in $(seq 10); do sleep 1; [ "$(hangs)" -ge 1 ] && break; done
[ "$(hangs)" -ge 1 ] || fail "no register command took the hang"
before=$(cycles)
sleep 6
kill -0 "$IMAGE_PID" 2>/dev/null || fail "the daemon ended after a hanging spiWrite"
[ "$(cycles)" -ge $((before + 2)) ] || fail "cycles stopped after a hanging spiWrite ($before -> $(cycles))"
[ "$(grep -c "spiWrite did not finish within 2 s, its process group killed" "$ROOT/log/stderr")" = 1 ] ||
    fail "standard error: $(cat "$ROOT/log/stderr")"
for p in /proc/[0-9]*; do
    [ "$(readlink "$p/root" 2>/dev/null)" = "$ROOT" ] || continue
    tr '\0' ' ' < "$p/cmdline" 2>/dev/null | grep -q "^sleep 3600" && fail "the hanging spiWrite still runs"
done

# A second zarvent beside it exits non-zero before it runs a command or
# takes the lock.
lock=$(cat "$ROOT/run/zarvent.lock")
status=0
image_second "$ROOT" 2> "$ROOT/second.err" || status=$?
[ "$status" = 1 ] || fail "a second instance exited with $status"
grep -q "^zarvent: another instance is running (pid [0-9]*); lock /run/zarvent.lock$" "$ROOT/second.err" ||
    fail "second instance: $(cat "$ROOT/second.err")"
[ "$(log | grep -c "^mkfs -q /dev/ram1 8192$")" = 1 ] || fail "the second instance ran its start-up"
[ "$(cat "$ROOT/run/zarvent.lock")" = "$lock" ] || fail "the second instance changed the lock file"

# SIGTERM while a register command hangs: the daemon is gone within that
# command's deadline (2 s) and a second.
touch "$ROOT/fpga/hang"
for _ in $(seq 20); do sleep 0.5; [ "$(hangs)" -ge 2 ] && break; done
[ "$(hangs)" -ge 2 ] || fail "no register command took the second hang"
kill -TERM "$(image_daemon_pid "$ROOT")"
asked=$(date +%s%N)
while kill -0 "$IMAGE_PID" 2>/dev/null && [ $(( $(date +%s%N) - asked )) -lt 10000000000 ]; do sleep 0.05; done
took=$(( ($(date +%s%N) - asked) / 1000000 ))
echo "stopped $took ms after SIGTERM, with a register command hanging"
kill -0 "$IMAGE_PID" 2>/dev/null && fail "still running 10 s after SIGTERM"
status=0
wait "$IMAGE_PID" || status=$?
[ "$status" = 0 ] || fail "exit status $status after SIGTERM"
[ "$took" -le 3000 ] || fail "the stop took $took ms"
echo "1 passed, 0 failed"
