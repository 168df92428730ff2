#!/usr/bin/env bash
# Runs a demo scenario for 15 board minutes and compares its trace with the
# recorded one, byte for byte.
#   golden_test.sh ZARVENT_SIM SCENARIO_NAME
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
sim=$1 name=$2
out=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-golden-XXXXXX")
trap 'rm -rf "$out"' EXIT
"$sim" --scenario "$here/../../sim/scenarios/$name.scn" --out "$out/run" --pace fast --duration 900 >/dev/null
"$here/trace.sh" "$out/run" > "$out/actual"
gzip -dc "$here/$name.trace.gz" > "$out/expected"
if ! cmp -s "$out/expected" "$out/actual"; then
    echo "trace of $name differs from $name.trace.gz (first differences):"
    diff "$out/expected" "$out/actual" | head -n 40
    exit 1
fi
echo "trace of $name: $(wc -l < "$out/actual") lines identical"
