# A board image for the production zarvent, to be sourced by the sandbox test
# and the benchmarks: a chroot with busybox utilities, dash as /bin/sh, fake
# board tools that print the real formats and log their command lines, and a
# sysfs tree. The daemon runs unchanged inside its own network, mount and PID
# namespaces, without the capabilities that reach the clock, modules, reboot
# or raw devices, in the bounding and in the inheritable set.
#   image_check              exit 77 (skipped) when the image cannot be made here
#   image_make ROOT ZARVENT  build the image in ROOT with the daemon binary;
#                            with ZARVENT a .deb, the image installs that
#                            package, and an armhf daemon runs under
#                            qemu-arm-static (the board's tools stay the host's)
#   image_start ROOT PULSE   start the daemon; PULSE 0: no pulse, else the mode
#                            of line 19's pulse (image_pulse_loop), changed by
#                            writing ROOT/pulse.mode while it runs
#   image_stop               end it
#   image_daemon_pid ROOT    the daemon's process id, as this machine sees it

image_skip() { echo "SKIPPED: $*"; exit 77; }

image_check() {
    [ "$(id -u)" = 0 ] || image_skip "needs root for chroot and namespaces"
    BUSYBOX=$(command -v busybox || true)
    [ -n "$BUSYBOX" ] || image_skip "busybox is not installed (apt-get install busybox-static)"
    { ldd "$BUSYBOX" 2>&1 || true; } | grep -q "not a dynamic" ||
        image_skip "busybox is not statically linked (apt-get install busybox-static)"
    [ -x /bin/dash ] || image_skip "dash is not installed"
    command -v setpriv >/dev/null || image_skip "setpriv (util-linux) is not installed"
    unshare --net --mount --pid --fork true 2>/dev/null ||
        image_skip "unshare --net --mount --pid is not permitted here"
}

image_tool() { # image_tool ROOT PATH BODY: a script that logs its command line first
    local path=$1$2
    mkdir -p "$(dirname "$path")"
    printf '#!/bin/sh\necho "%s $*" >> /log/commands.log\n%s\n' "$(basename "$2")" "$3" > "$path"
    chmod 755 "$path"
}

image_make() {
    local root=$1 zarvent=$2
    mkdir -p "$root"/{bin,sbin,usr/bin/Zarvent,etc/network,log,fpga,fake,tmp,ftpdir,dev,run,sys/class/gpio}
    cp "$BUSYBOX" "$root/bin/busybox"
    # Only harmless utilities come from busybox. The shell is dash: busybox's
    # shell runs its own applets before it looks at PATH, so "adjtimex -t
    # 10082" would reach the real clock instead of the fake below.
    for a in echo rm touch mkdir mv cp tail df grep cat sleep usleep date printf kill ls wc expr true; do
        ln -s busybox "$root/bin/$a"
    done
    cp /bin/dash "$root/bin/sh"
    local lib emulator=
    if [[ $zarvent == *.deb ]]; then
        dpkg-deb -x "$zarvent" "$root"
        zarvent=$root/usr/bin/Zarvent/zarvent
        # e_machine 0x28: an ARM binary.
        if [ "$(od -An -tx1 -j18 -N1 "$zarvent" | tr -d ' ')" = 28 ]; then
            # The armhf runtime where the board has it, and the emulator.
            mkdir -p "$root/lib/arm-linux-gnueabihf" "$root/usr/bin"
            cp -L /usr/arm-linux-gnueabihf/lib/ld-linux-armhf.so.3 "$root/lib/"
            cp -L /usr/arm-linux-gnueabihf/lib/{libc.so.6,libm.so.6} "$root/lib/arm-linux-gnueabihf/"
            cp /usr/bin/qemu-arm-static "$root/usr/bin/qemu-arm-static"
            emulator=/usr/bin/qemu-arm-static
        fi
    else
        cp "$zarvent" "$root/usr/bin/Zarvent/zarvent"
    fi
    for lib in $( (ldd "$zarvent" 2>/dev/null; ldd /bin/dash) | grep -o '/[^ ]*' | sort -u); do
        mkdir -p "$root$(dirname "$lib")"
        cp -L "$lib" "$root$lib"
    done
    echo bitstream > "$root/usr/bin/Zarvent/Version_1.rbf"
    echo 32768 > "$root/usr/bin/Zarvent/dac_voltage"
    echo 0 > "$root/usr/bin/Zarvent/enable.cfg"
    echo 0 > "$root/usr/bin/Zarvent/nmea_emul_flag.txt"
    printf '3692217600\t37\t# 1 Jan 2017\n' > "$root/leap-seconds.list"

    # spiWrite: five lines, the fifth the bytes received; registers in /fpga,
    # one-byte writes kept there. With /fpga/hang present, one call hangs (a
    # wedged SPI controller).
    image_tool "$root" /usr/bin/Zarvent/spiWrite '
if rm /fpga/hang 2>/dev/null; then echo "-- hang" >> /log/commands.log; exec sleep 3600; fi
m=$2; d=$6; reg=$7
[ "$m" = 1 ] && [ "$d" = 1 ] && echo "$8" > /fpga/reg$reg
echo "spiWrite: mode $m length $4 data $d"
echo "register $reg"
echo "tx: $*"
echo "transfer complete"
line="AA AA"; i=0
if [ "$m" = 0 ]; then
  v=0; [ -f /fpga/reg$reg ] && v=$(cat /fpga/reg$reg)
  while [ $i -lt $d ]; do line="$line $(printf %02X $(( (v >> (8*i)) & 255 )))"; i=$((i+1)); done
else
  while [ $i -lt $d ]; do line="$line A5"; i=$((i+1)); done
fi
echo "$line"'
    # /fake/loader-hang: one load never ends. /fake/peers-slow: ntpq -p takes
    # 10 s (a name server that does not answer). /fake/clockvar-hang: ntpq -c
    # never ends (a wedged ntpd).
    image_tool "$root" /usr/bin/Zarvent/wrFPGA '
rm /fake/loader-hang 2>/dev/null && exec sleep 3600
echo "wrFPGA: loading"; echo "wrFPGA: loaded"'
    image_tool "$root" /bin/ntpq '
[ "$1" = "-p" ] && [ -f /fake/peers-slow ] && sleep 10
[ "$1" = "-c" ] && [ -f /fake/clockvar-hang ] && exec sleep 3600
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
    image_tool "$root" /bin/ntptime '
s=$(date -u +%s)
echo "ntp_gettime() returns code 0 (OK)"
printf "  time %08x.00000000  %s.000, (.000000),\n" $((s + 2208988800)) "$(date -u -d @$s "+%a, %b %e %Y %k:%M:%S")"
echo "  maximum error 16000 us, estimated error 16 us, TAI offset 37"'
    local t
    for t in /bin/adjtimex /bin/ifconfig /bin/mkfs /bin/mount; do image_tool "$root" $t ':'; done
    # The console stays, started in the background, and keeps the pipe of
    # the command that started it.
    image_tool "$root" /sbin/agetty 'exec sleep 3599'
    image_tool "$root" /usr/bin/mversion 'echo "board 1.0"'
    echo 40 > "$root/fpga/reg26"
    echo 38 > "$root/fpga/reg24"
    echo 5 > "$root/fpga/reg14"

    # The sysfs tree: every line the daemon uses, as the system exports it.
    touch "$root/sys/class/gpio/export"
    local n
    for n in 13 19 70 71 72 73 74 75 76 77 78 79 85 86 87 88 96 106 118 176 182; do
        mkdir -p "$root/sys/class/gpio/gpio$n"
        echo in > "$root/sys/class/gpio/gpio$n/direction"
        echo none > "$root/sys/class/gpio/gpio$n/edge"
        echo 0 > "$root/sys/class/gpio/gpio$n/value"
    done
    for n in 79 85 86 87 88 176; do echo 1 > "$root/sys/class/gpio/gpio$n/value"; done

    printf '#!/bin/sh\nexec /bin/sh /daemon.sh > /log/stdout 2> /log/stderr\n' > "$root/start.sh"
    printf 'cd /usr/bin/Zarvent && exec %s ./zarvent\n' "$emulator" > "$root/daemon.sh"
    chmod 755 "$root/start.sh"
}

# The FPGA's pulse on line 19, driven from outside the image on the clock's
# own seconds, as ROOT/pulse.mode says: 1 (once a second, 100 ms high from
# the top of the second), 4 (four times a second, 50 ms high), late (once a
# second, 0.4 s after the top), off.
image_pulse_loop() {
    local root=$1 value=$1/sys/class/gpio/gpio19/value mode period at high now us wait
    while [ -d "$root/log" ]; do
        mode=$(cat "$root/pulse.mode" 2>/dev/null || echo off)
        case $mode in
        4) period=250000 at=0 high=50000 ;;
        late) period=1000000 at=400000 high=100000 ;;
        1) period=1000000 at=0 high=100000 ;;
        *) echo 0 > "$value"; sleep 0.1; continue ;;
        esac
        now=$EPOCHREALTIME
        us=$((10#${now#*.}))
        wait=$(( ((at - us) % period + period) % period ))
        [ "$wait" -gt 0 ] && sleep "$(printf '0.%06d' "$wait")"
        echo 1 > "$value"
        echo pulse >> "$root/log/pulses"
        echo "-- pulse" >> "$root/log/commands.log"
        sleep "$(printf '0.%06d' "$high")"
        echo 0 > "$value"
    done
}

image_start() {
    local root=$1 pulse=$2
    if [ "$pulse" != 0 ]; then
        echo "$pulse" > "$root/pulse.mode"
        image_pulse_loop "$root" &
        IMAGE_PULSES=$!
    fi
    setpriv --inh-caps=-all --bounding-set -sys_time,-sys_module,-sys_boot,-sys_rawio \
        unshare --net --mount --pid --fork --kill-child sh -c \
        "mount --make-rprivate / && touch '$root/dev/null' && mount --bind /dev/null '$root/dev/null' &&
         exec chroot '$root' /bin/sh /start.sh" &
    IMAGE_PID=$!
}

# image_second ROOT: a second daemon in the same image, in namespaces of its
# own; its standard error on ours, its exit status returned.
image_second() {
    setpriv --inh-caps=-all --bounding-set -sys_time,-sys_module,-sys_boot,-sys_rawio \
        unshare --net --mount --pid --fork --kill-child chroot "$1" /bin/sh /daemon.sh
}

image_stop() {
    [ -n "${IMAGE_PULSES:-}" ] && kill "$IMAGE_PULSES" 2>/dev/null || true
    [ -n "${IMAGE_PID:-}" ] && kill -9 "$IMAGE_PID" 2>/dev/null || true
    wait 2>/dev/null || true
}

image_daemon_pid() {
    local p
    for p in /proc/[0-9]*; do
        [ "$(readlink "$p/root" 2>/dev/null)" = "$1" ] &&
            grep -qx "zarvent\|qemu-arm-static" "$p/comm" 2>/dev/null &&
            { echo "${p#/proc/}"; return 0; }
    done
    return 1
}
