#!/usr/bin/env bash
# ./run demo [SCENARIO] [--pace P|fast] [--duration S] [--out DIR] [--report DIR]
# Runs the daemon against the simulated board and shows what the appliance's
# web interface would show, redrawn every board second. SCENARIO is a name
# from sim/scenarios/ (normal, antenna-short, receiver-lost, statistics-on,
# alarm, day-ocxo, day-tcxo) or a scenario file. Ctrl-C stops the run cleanly.
# --report DIR writes DIR/report.html (plots and timing metrics of the run)
# and DIR/series.csv at its end.
set -euo pipefail
cd "$(dirname "$0")/.."

scenario=normal
pace=1
duration=
report=
out=${TMPDIR:-/tmp}/zarvent-demo
while [ $# -gt 0 ]; do
    case "$1" in
    --pace) pace=$2; shift 2 ;;
    --duration) duration=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --report) report=$2; shift 2 ;;
    -h|--help) sed -n '2,9p' "$0"; exit 0 ;;
    *) scenario=$1; shift ;;
    esac
done
file=$scenario
[ -f "$file" ] || file=sim/scenarios/$scenario.scn
if [ ! -f "$file" ]; then
    echo "no scenario $scenario; choose one of: $(cd sim/scenarios && ls *.scn | sed 's/\.scn$//' | tr '\n' ' ')" >&2
    exit 2
fi

# What a fresh Debian 12 machine lacks for the build.
if ! command -v cmake >/dev/null || ! command -v g++ >/dev/null || ! command -v make >/dev/null; then
    if [ "$(id -u)" = 0 ]; then
        apt-get update -qq || true
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends cmake g++ make >/dev/null
    else
        echo "cmake, g++ and make are needed: sudo apt-get install cmake g++ make" >&2
        exit 1
    fi
fi
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target zarvent-sim >/dev/null

rm -rf "$out"
mkdir -p "$out"
args=(--scenario "$file" --out "$out" --show)
if [ "$pace" = fast ]; then args+=(--pace fast); else args+=(--pace "$pace"); fi
[ -n "$duration" ] && args+=(--duration "$duration")
[ -n "$report" ] && args+=(--report "$report")
exec build-release/sim/zarvent-sim "${args[@]}"
