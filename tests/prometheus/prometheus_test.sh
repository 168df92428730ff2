#!/usr/bin/env bash
# A simulated board's metrics as Prometheus's own tools take them: promtool's
# check of the exposition format, promtool's tests of the shipped alert rules,
# and a real node_exporter on 127.0.0.1 serving the board's metrics directory.
#   prometheus_test.sh ZARVENT_SIM
# Exit 77 (skipped) when prometheus, prometheus-node-exporter or curl is missing.
set -euo pipefail
SIM=$(readlink -f "$1")
HERE=$(cd "$(dirname "$0")" && pwd)
for tool in promtool prometheus-node-exporter curl; do
    command -v "$tool" >/dev/null || {
        echo "SKIPPED: $tool is not installed (apt-get install prometheus prometheus-node-exporter curl)"
        exit 77
    }
done
dir=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-prometheus-XXXXXX")
exporter=
trap '[ -n "$exporter" ] && kill "$exporter" 2>/dev/null; wait 2>/dev/null; rm -rf "$dir"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

# The antenna shorts at 120 s; at 180 s it is still short.
"$SIM" --scenario "$HERE/../../sim/scenarios/antenna-short.scn" --out "$dir/run" --pace fast \
    --duration 180 >/dev/null 2>&1
metrics=$dir/run/board/ramcache/zarvent/metrics
promtool check metrics < "$metrics/zarvent.prom" || fail "promtool check metrics"
(cd "$HERE" && promtool test rules alerts_test.yml) || fail "promtool test rules"

for port in $((20000 + $$ % 20000)) $((40000 + $$ % 20000)); do
    prometheus-node-exporter --web.listen-address="127.0.0.1:$port" --collector.disable-defaults \
        --collector.textfile --collector.textfile.directory="$metrics" > "$dir/exporter.log" 2>&1 &
    exporter=$!
    for _ in $(seq 50); do
        curl -sf "http://127.0.0.1:$port/metrics" > "$dir/scraped" 2>/dev/null && break 2
        kill -0 "$exporter" 2>/dev/null || break
        sleep 0.1
    done
    kill "$exporter" 2>/dev/null || true
    exporter=
done
[ -n "$exporter" ] || fail "node_exporter did not serve: $(cat "$dir/exporter.log")"
for line in 'zarvent_antenna{state="short"} 1' 'zarvent_steering 1' 'node_textfile_scrape_error 0' \
            'zarvent_reference{state="system_peer"} 1'; do
    grep -qxF "$line" "$dir/scraped" || fail "node_exporter's /metrics lacks: $line"
done
grep -q '^zarvent_build_info{version="[0-9.]*"} 1$' "$dir/scraped" || fail "no build info"
echo "1 passed, 0 failed"
