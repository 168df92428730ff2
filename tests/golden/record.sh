#!/usr/bin/env bash
# Records the golden traces anew from a simulator build. Run it only on
# purpose, when a change of behaviour is meant; the commit that updates the
# traces says what changed and why.
#   record.sh ZARVENT_SIM
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
sim=$(readlink -f "$1")
out=$(mktemp -d "${TMPDIR:-/tmp}/zarvent-record-XXXXXX")
trap 'rm -rf "$out"' EXIT
for name in normal statistics-on; do
    "$sim" --scenario "$here/../../sim/scenarios/$name.scn" --out "$out/$name" --pace fast --duration 900 >/dev/null
    "$here/trace.sh" "$out/$name" | gzip -9n > "$here/$name.trace.gz"
    echo "$name: $(gzip -dc "$here/$name.trace.gz" | wc -l) lines"
done
