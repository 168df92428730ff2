#!/usr/bin/env bash
# Builds the libFuzzer targets in BUILD_DIR and runs each for SECONDS, one
# after another, from a work copy of its checked-in corpus (the source tree is
# never written); crashes are saved under BUILD_DIR/fuzz-artifacts/<target>/.
#   tests/fuzz/fuzz.sh BUILD_DIR SECONDS
# FUZZ_RUNS=N also stops each target after N executions, so that the fast
# ones leave the time to the slow ones.
set -euo pipefail
if [ $# -ne 2 ]; then
    echo "usage: $0 BUILD_DIR SECONDS" >&2
    exit 2
fi
src=$(cd "$(dirname "$0")/../.." && pwd)
mkdir -p "$1"
build=$(cd "$1" && pwd)
seconds=$2
mapfile -t targets < <(ls "$src/tests/fuzz/corpus")

cmake -S "$src" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DZARVENT_FUZZ=ON \
    -DCMAKE_BUILD_TYPE=Release >/dev/null
if ! cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" \
    --target "${targets[@]/#/fuzz_}" >"$build/fuzz-build.log" 2>&1; then
    cat "$build/fuzz-build.log" >&2
    exit 1
fi

table=$(printf '%-10s %14s %10s %8s %8s' target executions exec/s corpus crashes)
failed=0
# A quarantine of 16 MiB still holds the memory freed over hundreds of runs,
# and the runs are much faster than with the default 256 MiB.
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=16}
for t in "${targets[@]}"; do
    work=$build/fuzz-work/$t
    artifacts=$build/fuzz-artifacts/$t
    log=$build/fuzz-work/$t.log
    rm -rf "$work" "$artifacts"
    mkdir -p "$work" "$artifacts"
    cp "$src/tests/fuzz/corpus/$t"/* "$work"/
    echo "== fuzz_$t for $seconds s (log $log)" >&2
    status=0
    "$build/tests/fuzz/fuzz_$t" -max_total_time="$seconds" -runs="${FUZZ_RUNS:--1}" \
        -print_final_stats=1 -artifact_prefix="$artifacts/" "$work" >"$log" 2>&1 || status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    crashes=$(find "$artifacts" -type f | wc -l)
    if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
        failed=1
        [ "$crashes" -ne 0 ] || crashes="exit $status"
    fi
    table+=$(printf '\n%-10s %14s %10s %8s %8s' "$t" "${runs:-?}" "${rate:-?}" \
        "$(find "$work" -type f | wc -l)" "$crashes")
done
echo "$table"
exit $failed
