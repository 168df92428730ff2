#!/usr/bin/env bash
# Process starts per board second in the simulator (normal scenario: receiver
# valid from the start, steering after 60 valid cycles, statistics off), by
# state, beside the number the daemon's design calls for in that state.
#   process_starts.sh ZARVENT_SIM
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
sim=$(readlink -f "$1")
out=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-starts-XXXXXX")
trap 'rm -rf "$out"' EXIT
"$sim" --scenario "$here/../sim/scenarios/normal.scn" --out "$out" --pace fast --duration 300 >/dev/null
# A second is steered when the cycle hands the time over (register 10), and
# holds a supervision pass when "ntpq -p" runs in it. The first seconds (start-
# up, the FPGA load) are left out.
# What the design calls for, with the receiver valid, statistics off, no FPGA
# event, no alarm and PTP responses arriving:
#  - a cycle: the response and request counters (registers 26, 24), the event
#    flags (28), the client indicator off and its flash (six echoes and a
#    read of register 26), ntptime, the phase (14), "ntpq -c clockvar" and the
#    status page's lock removal: 14;
#  - steered, in addition: the hand-over (registers 10, 3, 11 and a second
#    ntptime) and the steering bit (register 2 read, register 1 written): 20;
#  - a supervision pass: two "ntpq -p" queries, the reference and alarm
#    indicators (72/73, 76/77), the antenna indicators (74/75) and two
#    read-modify-writes of register 2: 12.
unsync=14 steered=20 pass=12
awk -v unsync="$unsync" -v steered="$steered" -v pass="$pass" '
# Commands the daemon ends with a newline leave an empty line in the log.
NF < 3 { next }
{ s = int($1); n[s]++ }
/ -d 1 10 / { st[s] = 1 }
/ntpq -p/ { sup[s] = 1 }
END {
    first = -1
    for (s in n) if (first < 0 || s + 0 < first) first = s + 0
    for (s in n) {
        if (s + 0 < first + 5) continue
        k = (st[s] ? "steered" : "unsynchronised") (sup[s] ? ", with a supervision pass" : "")
        count[k]++; seen[k, n[s]]++
        if (!(k in lo) || n[s] < lo[k]) lo[k] = n[s]
        if (!(k in hi) || n[s] > hi[k]) hi[k] = n[s]
    }
    # The most frequent count is the one of the state alone: a second in which a
    # supervision pass ends or the FPGA thread works holds a few more.
    for (k in count) for (v = lo[k]; v <= hi[k]; v++)
        if (seen[k, v] > seen[k, mode[k]]) mode[k] = v
    want["unsynchronised"] = unsync; want["steered"] = steered
    want["unsynchronised, with a supervision pass"] = unsync + pass
    want["steered, with a supervision pass"] = steered + pass
    printf "%-40s %7s %5s %5s %5s %8s\n", "state of the second", "seconds", "most", "min", "max", "designed"
    for (k in count)
        printf "%-40s %7d %5d %5d %5d %8d\n", k, count[k], mode[k], lo[k], hi[k], want[k]
}' "$out/logs/commands.log" | sort
