#!/usr/bin/env bash
# The board package made from an armhf zarvent: lintian finds no error or
# warning in it, and the sandbox test runs the daemon as the package installs
# it, under qemu-arm-static in the board image.
#   package_test.sh ZARVENT_ARMHF
# Exit 77 (skipped) when the emulator or the armhf runtime is missing, or the
# sandbox cannot run here.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
command -v qemu-arm-static >/dev/null || { echo "SKIPPED: qemu-arm-static is not installed"; exit 77; }
[ -f /usr/arm-linux-gnueabihf/lib/ld-linux-armhf.so.3 ] ||
    { echo "SKIPPED: the armhf runtime (libc6-armhf-cross) is not installed"; exit 77; }
out=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-package-XXXXXX")
trap 'rm -rf "$out"' EXIT
deb=$("$here/../../pkg/build-deb.sh" "$1" "$out")
echo "package: $(basename "$deb"), $(stat -c %s "$deb") bytes"
if command -v lintian >/dev/null; then
    status=0
    report=$(lintian --fail-on error,warning "$deb" 2>&1) || status=$?
    echo "$report" | grep -v "running with root privileges" || true
    [ "$status" = 0 ] || { echo "FAIL: lintian"; exit 1; }
else
    echo "lintian is not installed: the package is not checked"
fi
exec "$here/sandbox_test.sh" "$deb"
