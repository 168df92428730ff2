#!/usr/bin/env bash
# A fleet of simulated boards watched by Prometheus, on loopback only:
#   sim/fleet.sh [N] [SECONDS]
# N boards (default 5), each the daemon on the simulated board at PACE times
# real time, each with its own node_exporter serving its metrics directory on
# 127.0.0.1; one Prometheus scrapes them all every second with the shipped
# alert rules loaded. Board 2's antenna shorts and board 3 loses its receiver
# (and ntpd its reference) five board minutes in. After SECONDS of wall time
# (default 60) it prints, from Prometheus's HTTP API, a row per board: offset,
# steering, reference and the alerts firing; then it ends what it started.
#
# Prometheus keeps wall time while the boards run fast, so the rules are loaded
# with their for: durations divided by PACE (10 minutes become 30 s); the run
# says so. The daemon's time stamps run ahead of the wall clock, so no board
# looks stale.
set -euo pipefail
cd "$(dirname "$0")/.."
boards=${1:-5}
seconds=${2:-60}
readonly PACE=20
readonly PROMETHEUS_PORT=29090 EXPORTER_BASE=29100
[[ $boards =~ ^[1-9][0-9]*$ && $boards -le 50 ]] || { echo "N: 1 to 50 boards" >&2; exit 2; }
[[ $seconds =~ ^[1-9][0-9]*$ ]] || { echo "SECONDS: a whole number" >&2; exit 2; }

# What a fresh Debian 12 machine lacks.
missing=()
for p in cmake:cmake g++:g++ make:make prometheus:prometheus \
         prometheus-node-exporter:prometheus-node-exporter curl:curl; do
    command -v "${p%%:*}" >/dev/null || missing+=("${p#*:}")
done
if [ ${#missing[@]} -gt 0 ]; then
    if [ "$(id -u)" = 0 ]; then
        apt-get update -qq || true
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
    else
        echo "needed: sudo apt-get install ${missing[*]}" >&2
        exit 1
    fi
fi
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target zarvent-sim >/dev/null

run=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-fleet-XXXXXX")
pids=()
finish() {
    [ ${#pids[@]} -gt 0 ] && kill "${pids[@]}" 2>/dev/null
    wait 2>/dev/null || true
    rm -rf "$run"
}
trap finish EXIT
trap 'exit 130' INT TERM

# The boards and their exporters.
start=$(date -u +%Y-%m-%dT%H:%M:%S)
targets=
for i in $(seq "$boards"); do
    dir=$run/board$i
    mkdir -p "$dir"
    {
        echo "start $start"
        echo "duration $(( (seconds + 60) * PACE ))"
        echo "seed $((6 + i))"
        echo "osc gain 0.1 natural 33000 noise 3 offset 40"
        echo "load $((30 + i)) $((28 + i))"
        echo "rmc A"
        echo "peer system"
        [ "$i" = 2 ] && echo "at 300 gpio 87 0"
        [ "$i" = 3 ] && printf 'at 300 rmc V\nat 305 peer none\n'
    } > "$dir/board.scn"
    build-release/sim/zarvent-sim --scenario "$dir/board.scn" --out "$dir/sim" --pace "$PACE" \
        > "$dir/sim.log" 2>&1 &
    pids+=($!)
    mkdir -p "$dir/sim/board/ramcache/zarvent/metrics"
    port=$((EXPORTER_BASE + i))
    prometheus-node-exporter --web.listen-address="127.0.0.1:$port" --collector.disable-defaults \
        --collector.textfile --collector.textfile.directory="$dir/sim/board/ramcache/zarvent/metrics" \
        > "$dir/exporter.log" 2>&1 &
    pids+=($!)
    targets+="      - targets: ['127.0.0.1:$port']
        labels: {board: board$i}
"
done

# The shipped rules, their for: durations divided by the pace.
awk -v pace="$PACE" '
    match($0, /for: [0-9]+[ms]$/) {
        n = substr($0, RSTART + 5, RLENGTH - 6) + 0
        if (substr($0, RSTART + RLENGTH - 1, 1) == "m") n *= 60
        n = int((n + pace - 1) / pace)
        $0 = substr($0, 1, RSTART - 1) "for: " n "s"
    }
    { print }' pkg/zarvent-alerts.yml > "$run/rules.yml"
cat > "$run/prometheus.yml" <<EOF
global:
  scrape_interval: 1s
  evaluation_interval: 1s
rule_files:
  - $run/rules.yml
scrape_configs:
  - job_name: zarvent
    static_configs:
$targets
EOF
prometheus --config.file="$run/prometheus.yml" --storage.tsdb.path="$run/tsdb" \
    --web.listen-address="127.0.0.1:$PROMETHEUS_PORT" > "$run/prometheus.log" 2>&1 &
pids+=($!)
api=http://127.0.0.1:$PROMETHEUS_PORT/api/v1
for _ in $(seq 100); do
    curl -sf "http://127.0.0.1:$PROMETHEUS_PORT/-/ready" >/dev/null 2>&1 && break
    sleep 0.2
done
curl -sf "http://127.0.0.1:$PROMETHEUS_PORT/-/ready" >/dev/null ||
    { echo "Prometheus did not start:"; tail -n 5 "$run/prometheus.log"; exit 1; } >&2

echo "$boards boards at $PACE times real time, node_exporter on 127.0.0.1:$((EXPORTER_BASE + 1))-$((EXPORTER_BASE + boards)),"
echo "Prometheus on 127.0.0.1:$PROMETHEUS_PORT with pkg/zarvent-alerts.yml, its for: durations divided by $PACE"
echo "(board 2's antenna shorts and board 3 loses its receiver 5 board minutes in); $seconds s ..."
sleep "$seconds"

# One instant query: the first value, or "-".
query() {
    curl -sf -G "$api/query" --data-urlencode "query=$1" |
        sed -n 's/.*"value":\[[^,]*,"\([^"]*\)"\].*/\1/p' | head -n 1 | grep . || echo -
}
printf '%-8s %12s %9s %-12s %s\n' board "offset [ns]" steering reference "alerts firing"
for i in $(seq "$boards"); do
    job="board=\"board$i\""
    offset=$(query "round(zarvent_offset_seconds{$job} * 1e9)")
    steering=$(query "zarvent_steering{$job}")
    reference=-
    for state in system_peer pps_peer none; do
        [ "$(query "zarvent_reference{$job,state=\"$state\"}")" = 1 ] && reference=$state
    done
    alerts=$(curl -sf -G "$api/query" --data-urlencode "query=ALERTS{$job,alertstate=\"firing\"}" |
        grep -o '"alertname":"[^"]*"' | cut -d'"' -f4 | sort -u | paste -sd, - || true)
    printf '%-8s %12s %9s %-12s %s\n' "board$i" "$offset" "$steering" "$reference" "${alerts:--}"
done
