#!/usr/bin/env bash
# The production zarvent, unchanged, for a short real-time run in a sandboxed
# board image: a chroot with busybox, fake board tools that print the real
# formats and log their command lines, a sysfs tree and a pulse on line 19,
# all inside its own network, mount and PID namespaces, so that nothing can
# reach this machine's network, clock or mounts.
#   sandbox_test.sh PATH_TO_ZARVENT
# Exit 77 (skipped) when namespaces, chroot or busybox are not available.
set -euo pipefail
ZARVENT=$(readlink -f "$1")
SKIP=77

skip() { echo "SKIPPED: real-binary sandbox test: $*"; exit $SKIP; }
[ "$(id -u)" = 0 ] || skip "needs root for chroot and namespaces"
BUSYBOX=$(command -v busybox || true)
[ -n "$BUSYBOX" ] || skip "busybox is not installed (apt-get install busybox-static)"
[ -x /bin/dash ] || skip "dash is not installed"
command -v setpriv >/dev/null || skip "setpriv (util-linux) is not installed"
file -L "$BUSYBOX" 2>/dev/null | grep -q "statically linked" || ldd "$BUSYBOX" 2>&1 | grep -q "not a dynamic" ||
    skip "busybox is not statically linked (apt-get install busybox-static)"
unshare --net --mount --pid --fork true 2>/dev/null || skip "unshare --net --mount --pid is not permitted here"

ROOT=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-sandbox-XXXXXX")
cleanup() {
    [ -n "${NSPID:-}" ] && kill -9 "$NSPID" 2>/dev/null || true
    wait 2>/dev/null || true
    [ -n "${ZARVENT_KEEP_SANDBOX:-}" ] && echo "kept $ROOT" || rm -rf "$ROOT"
}
trap cleanup EXIT

# ---- the board image ------------------------------------------------------
mkdir -p "$ROOT"/{bin,sbin,usr/bin/Zarvent,etc/network,log,fpga,tmp,ftpdir,dev,sys/class/gpio}
cp "$BUSYBOX" "$ROOT/bin/busybox"
# Only harmless utilities come from busybox. The shell is dash, not busybox's
# sh: busybox's shell runs its own applets before it looks at PATH, so
# "adjtimex -t 10082" would reach the real clock instead of the fake below.
for a in echo rm touch mkdir mv cp tail df grep cat sleep usleep date printf kill ls wc expr true; do
    ln -s busybox "$ROOT/bin/$a"
done
cp /bin/dash "$ROOT/bin/sh"
# The daemon's and the shell's shared libraries, where the host keeps them.
for lib in $( (ldd "$ZARVENT"; ldd /bin/dash) | grep -o '/[^ ]*' | sort -u); do
    mkdir -p "$ROOT$(dirname "$lib")"
    cp -L "$lib" "$ROOT$lib"
done
cp "$ZARVENT" "$ROOT/usr/bin/Zarvent/zarvent"
echo bitstream > "$ROOT/usr/bin/Zarvent/Version_1.rbf"
echo 32768 > "$ROOT/usr/bin/Zarvent/dac_voltage"
echo 0 > "$ROOT/usr/bin/Zarvent/enable.cfg"
echo 0 > "$ROOT/usr/bin/Zarvent/nmea_emul_flag.txt"
printf '3692217600\t37\t# 1 Jan 2017\n' > "$ROOT/leap-seconds.list"

tool() { # tool PATH BODY: a busybox sh script that logs its command line first
    local path=$ROOT$1
    mkdir -p "$(dirname "$path")"
    printf '#!/bin/sh\necho "%s $*" >> /log/commands.log\n%s\n' "$(basename "$1")" "$2" > "$path"
    chmod 755 "$path"
}

# spiWrite: five lines, the fifth the bytes received (Part 2.2); registers in /fpga.
tool /usr/bin/Zarvent/spiWrite '
m=$2; d=$6; reg=$7
echo "spiWrite: mode $m length $4 data $d"
echo "register $reg"
echo "tx: $*"
echo "transfer complete"
if [ "$m" = 0 ]; then
  v=0; [ -f /fpga/reg$reg ] && v=$(cat /fpga/reg$reg)
  line="AA AA"; i=0
  while [ $i -lt $d ]; do line="$line $(printf %02X $(( (v >> (8*i)) & 255 )))"; i=$((i+1)); done
  echo "$line"
else
  line="AA AA"; i=0
  while [ $i -lt $d ]; do line="$line A5"; i=$((i+1)); done
  echo "$line"
fi'
tool /usr/bin/Zarvent/wrFPGA 'echo "wrFPGA: loaded"'
tool /bin/ntpq '
if [ "$1" = "-p" ]; then
  echo "     remote           refid      st t when poll reach   delay   offset  jitter"
  echo "=============================================================================="
  echo "*GPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000   -0.012   0.003"
else
  echo "associd=0 status=0000 no events, clk_unspec,"
  echo "device=\"NMEA GPS Clock\","
  echo "timecode=\"\$GPRMC,132746.00,A,5540.1234,N,03736.5678,E,0.00,0.00,161126,,,A*6C\","
  echo "poll=3418, noreply=0, badformat=0, baddata=0,"
  echo "stratum=0, refid=GPS, flags=5"
fi'
tool /bin/ntptime '
s=$(date -u +%s)
echo "ntp_gettime() returns code 0 (OK)"
printf "  time %08x.00000000  %s.000, (.000000),\n" $((s + 2208988800)) "$(date -u -d @$s "+%a, %b %e %Y %k:%M:%S")"
echo "  maximum error 16000 us, estimated error 16 us, TAI offset 37"'
tool /bin/adjtimex ':'
tool /bin/ifconfig ':'
tool /bin/mkfs ':'
tool /bin/mount ':'
tool /sbin/agetty ':'
tool /usr/bin/mversion 'echo "board 1.0"'
echo 40 > "$ROOT/fpga/reg26"
echo 38 > "$ROOT/fpga/reg24"
echo 5 > "$ROOT/fpga/reg14"

# The sysfs tree: every line the daemon uses, as the system exports it.
touch "$ROOT/sys/class/gpio/export"
for n in 13 19 70 71 72 73 74 75 76 77 78 79 85 86 87 88 96 106 118 176 182; do
    mkdir -p "$ROOT/sys/class/gpio/gpio$n"
    echo in > "$ROOT/sys/class/gpio/gpio$n/direction"
    echo none > "$ROOT/sys/class/gpio/gpio$n/edge"
    echo 0 > "$ROOT/sys/class/gpio/gpio$n/value"
done
for n in 79 85 86 87 88 176; do echo 1 > "$ROOT/sys/class/gpio/gpio$n/value"; done

# ---- the run ----------------------------------------------------------------
cat > "$ROOT/start.sh" <<'EOS'
#!/bin/sh
# The FPGA's pulse: line 19 high for 100 ms of every second.
( while true; do
    echo 1 > /sys/class/gpio/gpio19/value; echo pulse >> /log/pulses; usleep 100000
    echo 0 > /sys/class/gpio/gpio19/value; usleep 900000
  done ) &
cd /usr/bin/Zarvent && exec ./zarvent > /log/stdout 2> /log/stderr
EOS
chmod 755 "$ROOT/start.sh"

# Defence in depth: without CAP_SYS_TIME, CAP_SYS_MODULE, CAP_SYS_BOOT and
# CAP_SYS_RAWIO in the bounding set, nothing in the image can set the clock
# or its rate, load modules, reboot or touch raw devices, whatever runs.
setpriv --bounding-set -sys_time,-sys_module,-sys_boot,-sys_rawio \
    unshare --net --mount --pid --fork --kill-child sh -c \
    "mount --make-rprivate / && touch '$ROOT/dev/null' && mount --bind /dev/null '$ROOT/dev/null' &&
     exec chroot '$ROOT' /bin/sh /start.sh" &
NSPID=$!

fail() { echo "FAIL: $*"; echo "--- commands"; tail -n 40 "$ROOT/log/commands.log" || true; exit 1; }

sleep 8
kill -0 "$NSPID" 2>/dev/null || fail "the daemon ended"
Z=$ROOT/ramcache/zarvent
[ -f "$Z/ntp.drift" ] || fail "no ntp.drift"
ls "$Z"/*.time >/dev/null 2>&1 || fail "no start-time marker"
for i in 1 2 3; do [ -f "$Z/ptp_data_0000_00_0$i" ] || fail "no placeholder $i"; done
grep -qx "mkfs -q /dev/ram1 8192" "$ROOT/log/commands.log" || fail "mkfs not run"
grep -qx "agetty -h 115200 ttyO1 vt100" "$ROOT/log/commands.log" || fail "agetty not run"
grep -qx "adjtimex -t 10082" "$ROOT/log/commands.log" || fail "adjtimex not run"
grep -qx "wrFPGA --file Version_1.rbf" "$ROOT/log/commands.log" || fail "FPGA not loaded"

# One cycle per pulse: ControlOffset reads register 14 once per cycle.
pulses=$(wc -l < "$ROOT/log/pulses")
cycles=$(grep -c "spiWrite -m 0 -l 6 -d 4 14 0 0 0 0" "$ROOT/log/commands.log" || true)
echo "pulses $pulses cycles $cycles"
[ "$cycles" -ge $((pulses - 2)) ] && [ "$cycles" -le "$pulses" ] || fail "cycles $cycles for $pulses pulses"

page=$(cat "$Z/ntp_data.txt") || fail "no status page"
today=$(date -u "+%b %e %Y")
echo "$page" | head -n 3 | grep -q "<b>Date:</b>	$today" || fail "status page date: $(echo "$page" | head -n 3)"
echo "$page" | grep -q "^<b>Current Offset \[ns\]:</b>	-50$" || fail "offset line"
echo "$page" | grep -q "^<b>Reference time:</b>    GPS+GLONASS$" || fail "reference line"
echo "$page" | grep -q "^<b>Antenna:</b> Ok$" || fail "antenna line"
grep -q "Reference time: GPS+GLONASS$" "$Z/errorlog.log" || fail "errorlog"

# A tool goes missing: the daemon keeps running and says so on the page.
rm "$ROOT/bin/ntpq"
before=$(grep -c "spiWrite -m 0 -l 6 -d 4 14" "$ROOT/log/commands.log")
sleep 5
kill -0 "$NSPID" 2>/dev/null || fail "the daemon ended without ntpq"
after=$(grep -c "spiWrite -m 0 -l 6 -d 4 14" "$ROOT/log/commands.log")
[ "$after" -ge $((before + 3)) ] || fail "cycles stopped without ntpq ($before -> $after)"
grep -q "Reference time: NULL$" "$Z/errorlog.log" || fail "no NULL reference in the errorlog"
grep -q "^<b>Reference time:</b>    NULL$" "$Z/ntp_data.txt" || fail "page reference without ntpq"
echo "1 passed, 0 failed"
