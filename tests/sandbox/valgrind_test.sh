#!/usr/bin/env bash
# The production zarvent, unchanged, under valgrind's memcheck in the sandboxed
# board image (board_image.sh) for a few board minutes with the receiver valid
# (it steers after 60 cycles) and statistics on, then SIGTERM: it must stop
# with status 0, no memory error, nothing definitely or indirectly lost and no
# descriptor open but the standard three.
#   valgrind_test.sh PATH_TO_ZARVENT [MIN_SECONDS]    (150 s of real time by default)
# Exit 77 (skipped) when namespaces, chroot, busybox or valgrind are not available.
set -euo pipefail
ZARVENT=$(readlink -f "$1") MIN_SECONDS=${2:-150}
here=$(cd "$(dirname "$0")" && pwd)
. "$here/board_image.sh"
image_check
VALGRIND=$(command -v valgrind || true)
[ -n "$VALGRIND" ] || image_skip "valgrind is not installed (apt-get install valgrind)"
VGLIB=
for d in ${VALGRIND_LIB:-} /usr/libexec/valgrind /usr/lib/valgrind /usr/lib64/valgrind; do
    compgen -G "$d/memcheck-*-linux" >/dev/null && { VGLIB=$d; break; }
done
[ -n "$VGLIB" ] || image_skip "valgrind's memcheck tool is not installed"
# valgrind must find strlen in the dynamic linker: in its symbol table or in
# the detached debugging symbols, looked up by build id.
debug_file() { local id; id=$(readelf -n "$1" | awk '/Build ID/ { print $3 }'); echo "/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug"; }
LDSO=$(ldd "$ZARVENT" | grep -o '/[^ ]*ld-linux[^ ]*')
[ -f "$(debug_file "$LDSO")" ] || readelf -S "$LDSO" | grep -q '\.symtab' ||
    image_skip "valgrind needs the C library's debugging symbols (apt-get install libc6-dbg)"

ROOT=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-valgrind-XXXXXX")
LOG=$ROOT/log/valgrind.log
cleanup() {
    image_stop
    [ -n "${ZARVENT_KEEP_SANDBOX:-}" ] && echo "kept $ROOT" || rm -rf "$ROOT"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; echo "--- valgrind"; cat "$LOG" 2>/dev/null || true; exit 1; }

image_make "$ROOT" "$ZARVENT"
# valgrind as the host has it, its memcheck tool, the debugging symbols of
# the image's libraries, and a /proc of the image's own PID namespace (valgrind
# reads its memory map there).
cp "$VALGRIND" "$ROOT/usr/bin/"
[ -f "$VALGRIND.bin" ] && cp "$VALGRIND.bin" "$ROOT/usr/bin/"
mkdir -p "$ROOT$VGLIB" "$ROOT/proc"
cp "$VGLIB"/{memcheck-*-linux,vgpreload_core-*.so,vgpreload_memcheck-*.so,default.supp} "$ROOT$VGLIB/"
for lib in $( (ldd "$ZARVENT"; ldd /bin/dash; ldd "$VALGRIND.bin" 2>/dev/null || true) | grep -o '/[^ ]*' | sort -u); do
    f=$(debug_file "$lib")
    [ -f "$f" ] && mkdir -p "$ROOT$(dirname "$f")" && cp "$f" "$ROOT$f"
done
# Statistics on: the capture device is a plain file whose spidev requests a
# preloaded model answers (spidev_model.cpp).
echo 1 > "$ROOT/usr/bin/Zarvent/enable.cfg"
touch "$ROOT/dev/spidev1.0"
"${CXX:-c++}" -std=c++20 -O2 -shared -fPIC -Wl,--as-needed -o "$ROOT/lib/spidev_model.so" \
    "$here/spidev_model.cpp" || fail "spidev_model.cpp does not build"
# The daemon, as start.sh starts it, under memcheck.
tail -n 1 "$ROOT/start.sh" | grep -q '^exec /bin/sh /daemon.sh ' || fail "start.sh changed"
sed -i '$d' "$ROOT/start.sh"
cat >> "$ROOT/start.sh" <<EOS
/bin/busybox mount -t proc proc /proc
LD_PRELOAD=/lib/spidev_model.so VALGRIND_LIB=$VGLIB
export LD_PRELOAD VALGRIND_LIB
cd /usr/bin/Zarvent && exec valgrind --tool=memcheck --leak-check=full \
  --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
  --track-fds=yes --error-exitcode=99 --child-silent-after-fork=yes --fair-sched=yes \
  --num-callers=30 --log-file=/log/valgrind.log ./zarvent < /dev/null > /log/stdout 2> /log/stderr
EOS
# Only the standard descriptors go to the daemon: close what this script
# inherited without close-on-exec.
for fd in "/proc/$$/fd/"*; do
    fd=${fd##*/}
    flags=$(awk '/^flags:/ { print $2 }' "/proc/$$/fdinfo/$fd" 2>/dev/null) || continue
    [ "$fd" -gt 2 ] && [ -n "$flags" ] && (( (8#$flags & 8#2000000) == 0 )) && eval "exec $fd>&-"
done

steered() { grep -c "spiWrite -m 1 -l 3 -d 1 10 " "$ROOT/log/commands.log" || true; }
elapsed() { echo $(($(date +%s) - start)); }
start=$(date +%s)
image_start "$ROOT" 1
for _ in $(seq 20); do # the daemon under valgrind: unshare's only child
    DAEMON=$(cat "/proc/$IMAGE_PID/task/$IMAGE_PID/children" 2>/dev/null || true)
    DAEMON=${DAEMON%% *}
    [ -n "$DAEMON" ] && break
    sleep 0.5
done
[ -n "$DAEMON" ] || fail "the daemon did not start"
# Under memcheck every command the daemon starts costs tens of milliseconds, so
# a cycle takes one pulse in two and steering starts after two minutes or more:
# run at least MIN_SECONDS, and on until 20 steered seconds (the DAC's set-up
# command before each word).
until [ "$(elapsed)" -ge "$MIN_SECONDS" ] && [ "$(steered)" -ge 20 ]; do
    kill -0 "$DAEMON" 2>/dev/null || fail "the daemon ended"
    [ "$(elapsed)" -lt $((MIN_SECONDS + 240)) ] || fail "$(steered) steered seconds after $(elapsed) s"
    sleep 5
done
# Each steered second is also a point in the chart file of its minute, and
# every other cycle a capture.
points=$(cat "$ROOT"/ramcache/zarvent/ptp_data_*~* 2>/dev/null | wc -l || true)
echo "pulses $(wc -l < "$ROOT/log/pulses"), steered seconds $(steered), chart points $points"
[ "$points" -ge 20 ] || fail "$points chart points"
grep -q "^ time2\*" "$ROOT/ftpdir/stat.txt" 2>/dev/null || fail "no statistics capture"

stop=$(date +%s)
kill -TERM "$DAEMON"
for _ in $(seq 60); do kill -0 "$DAEMON" 2>/dev/null || break; sleep 0.5; done
kill -0 "$DAEMON" 2>/dev/null && fail "still running 30 s after SIGTERM"
status=0
wait "$IMAGE_PID" || status=$?
IMAGE_PID=
echo "stopped in $(($(date +%s) - stop)) s with status $status, $(($(date +%s) - start)) s in all"
[ "$status" = 0 ] || fail "exit status $status"
report=$(sed -n 's/^==[0-9]*== //p' "$LOG")
v() { grep "$@" <<< "$report"; }
v -q "^ERROR SUMMARY: 0 errors" || fail "memcheck errors"
v -q "^All heap blocks were freed" ||
    { v -q "^ *definitely lost: 0 bytes in 0 blocks$" && v -q "^ *indirectly lost: 0 bytes in 0 blocks$"; } ||
    fail "memory lost"
# At exit only the standard descriptors and valgrind's own log.
fds=$(sed -n '/^FILE DESCRIPTORS/,/^HEAP SUMMARY/p' <<< "$report" | grep -v '^HEAP SUMMARY\|^$')
[ "$fds" = "FILE DESCRIPTORS: 4 open (3 std) at exit.
Open file descriptor 3: /log/valgrind.log
   <inherited from parent>" ] || fail "descriptors open at exit"
v "FILE DESCRIPTORS\|in use at exit\|lost:\|reachable:\|ERROR SUMMARY"
echo "1 passed, 0 failed"
