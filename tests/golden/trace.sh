#!/usr/bin/env bash
# Prints the trace of one simulator run: what the daemon did to the board
# (every command line with its time and mode, every level written to a GPIO
# line, the DAC words, the time hand-overs the FPGA model checked, the counter
# values it served) and the board files the daemon leaves behind.
#   trace.sh RUN_DIR      (RUN_DIR as given to zarvent-sim --out)
set -euo pipefail
run=$1
for log in commands levels dac handover counts summary; do
    echo "== log $log"
    cat "$run/logs/$log.log"
done
cd "$run/board"
find ramcache ftpdir etc usr/bin/Zarvent -type f 2>/dev/null | LC_ALL=C sort | while read -r f; do
    echo "== file /$f"
    cat "$f"
done
