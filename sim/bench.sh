#!/usr/bin/env bash
# Prints how fast the simulator runs the whole daemon: wall time and board
# seconds per wall second for a scenario (default: one board hour of normal
# operation). Figures only; nothing is asserted.
#   sim/bench.sh [SCENARIO_FILE] [BOARD_SECONDS] [SIMULATOR]
# Without SIMULATOR it builds a release simulator (the release preset) first.
set -euo pipefail
cd "$(dirname "$0")/.."
scenario=${1:-sim/scenarios/normal.scn}
seconds=${2:-3600}
sim=${3:-}
if [ -z "$sim" ]; then
    cmake --preset release >/dev/null
    cmake --build --preset release -j "$(nproc)" --target zarvent-sim >/dev/null
    sim=build-release/sim/zarvent-sim
fi
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
start=$(date +%s.%N)
"$sim" --scenario "$scenario" --out "$out" --pace fast --duration "$seconds" >/dev/null
end=$(date +%s.%N)
commands=$(wc -l < "$out/logs/commands.log")
awk -v s="$start" -v e="$end" -v b="$seconds" -v c="$commands" 'BEGIN {
    w = e - s
    printf "board seconds        %d\n", b
    printf "wall seconds         %.2f\n", w
    printf "board s per wall s   %.0f\n", b / w
    printf "a board day takes    %.1f wall minutes\n", 86400 / (b / w) / 60
    printf "commands run         %d (%.1f per board second)\n", c, c / b
}'
