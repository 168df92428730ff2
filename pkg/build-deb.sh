#!/usr/bin/env bash
# Builds the board package from an armhf zarvent binary: the stripped daemon
# at /usr/bin/Zarvent/zarvent, its systemd unit, SysV init script (with the
# respawn script it runs and the logrotate file for its log), the zarvent(8)
# page, the Prometheus alert rules and the Debian docs. Prints the path of the
# .deb.
#   pkg/build-deb.sh ZARVENT_ARMHF OUTDIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
binary=$1 out=$2
version=$(sed -n 's/^project(zarvent VERSION \([0-9.]*\).*/\1/p' "$here/../CMakeLists.txt")
[ -n "$version" ] || { echo "no version in CMakeLists.txt" >&2; exit 1; }
mkdir -p "$out"
root=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-deb-XXXXXX")
trap 'rm -rf "$root"' EXIT
chmod 755 "$root"

install -d "$root/DEBIAN" "$root/usr/bin/Zarvent" "$root/usr/lib/zarvent" \
    "$root/lib/systemd/system" "$root/etc/init.d" "$root/etc/logrotate.d" \
    "$root/usr/share/man/man8" "$root/usr/share/doc/zarvent" "$root/usr/share/lintian/overrides" \
    "$root/usr/share/zarvent"
arm-linux-gnueabihf-strip --strip-unneeded --remove-section=.comment --remove-section=.note \
    -o "$root/usr/bin/Zarvent/zarvent" "$binary"
chmod 755 "$root/usr/bin/Zarvent/zarvent"
install -m 755 "$here/respawn" "$root/usr/lib/zarvent/respawn"
install -m 644 "$here/zarvent.service" "$root/lib/systemd/system/zarvent.service"
install -m 755 "$here/zarvent.init" "$root/etc/init.d/zarvent"
install -m 644 "$here/zarvent.logrotate" "$root/etc/logrotate.d/zarvent"
gzip -9n < "$here/zarvent.8" > "$root/usr/share/man/man8/zarvent.8.gz"
gzip -9n < "$here/changelog" > "$root/usr/share/doc/zarvent/changelog.gz"
install -m 644 "$here/copyright" "$root/usr/share/doc/zarvent/copyright"
install -m 644 "$here/lintian-overrides" "$root/usr/share/lintian/overrides/zarvent"
install -m 644 "$here/zarvent-alerts.yml" "$root/usr/share/zarvent/zarvent-alerts.yml"
chmod 644 "$root"/usr/share/man/man8/* "$root"/usr/share/doc/zarvent/*
for s in postinst prerm postrm; do install -m 755 "$here/$s" "$root/DEBIAN/$s"; done
printf '%s\n' /etc/init.d/zarvent /etc/logrotate.d/zarvent > "$root/DEBIAN/conffiles"
size=$(du -sk --exclude=DEBIAN "$root" | cut -f1)
sed -e "s/@VERSION@/$version/" -e "s/@SIZE@/$size/" "$here/control" > "$root/DEBIAN/control"
(cd "$root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | sort -z | xargs -0 md5sum) \
    > "$root/DEBIAN/md5sums"
chmod 644 "$root/DEBIAN/control" "$root/DEBIAN/conffiles" "$root/DEBIAN/md5sums"
deb="$out/zarvent_${version}_armhf.deb"
dpkg-deb --root-owner-group -Zxz --build "$root" "$deb" >/dev/null
echo "$deb"
