#!/usr/bin/env bash
# Runs dac_word in a private mount namespace whose /sys/class is a tmpfs
# holding the three DAC lines, so nothing of the host's GPIO is touched.
#   dac_word.sh DAC_WORD [EMULATOR...]
set -euo pipefail
bin=$(readlink -f "$1")
shift
unshare --mount sh -c '
    mount --make-rprivate / && mount -t tmpfs tmpfs /sys/class && mkdir /sys/class/gpio &&
    touch /sys/class/gpio/export &&
    for n in 96 106 118; do
        mkdir /sys/class/gpio/gpio$n && echo in > /sys/class/gpio/gpio$n/direction &&
        echo 0 > /sys/class/gpio/gpio$n/value
    done &&
    exec "$@"' sh "$@" "$bin"
