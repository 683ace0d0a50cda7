#!/usr/bin/env bash
# The measurements (bench/README.md); never part of the tests' timing.
#   run-bench.sh SOURCE BUILD bench [RUNS]
#       the collector against its floor, the reader's history and memory
#   run-bench.sh SOURCE BUILD memory DRIVES [RAW_OCTETS]
#       the collector's peak memory over a simulated server of DRIVES
#       drives, the first solid-state drive's raw-data reply RAW_OCTETS long:
#       the figure qv-smart-collector.service's MemoryMax= is chosen against
set -euo pipefail
source=$1 build=$2 what=$3
shift 3
template="$source/tools/storage-sim/scenarios/demo.json"

bench() {
    local runs=${1:-15} scenarios="$build/bench/scenarios" drives
    for drives in 8 24 64 256 500 1024; do
        python3 "$source/bench/make-scenario.py" "$template" "$drives" \
            "$scenarios"
    done
    local status=0 history=0 memory=0
    "$build/bench/qv-bench" --runs "$runs" --busctl-runs 3 "$scenarios" \
        8 64 256 1024 || status=$?
    # The reader over a year of daily reports of a 24-drive server.
    "$build/bench/qv-bench-history" --runs "$runs" --days 365 "$scenarios" \
        24 || history=$?
    # The metrics unit's export over two years of a 500-drive server: its
    # memory must not grow with the days.
    "$build/bench/qv-bench-history" --memory --runs 3 --days 730 \
        "$scenarios" 500 || memory=$?
    if [ "$history" -eq 0 ] || [ "$memory" -eq 1 ]; then
        history=$memory
    fi
    # 0 when all met their targets; a failed run (1) outweighs a missed
    # target (3).
    if [ "$status" -eq 0 ] || { [ "$status" -eq 3 ] && [ "$history" -ne 0 ]; }; then
        status=$history
    fi
    return "$status"
}

# The collector's own output is shown only when the run failed.
memory() {
    local drives=$1 octets=${2:-} made rc=0
    made=$(mktemp -d)
    trap 'rm -rf "$made"' RETURN
    python3 "$source/bench/make-scenario.py" "$template" "$drives" "$made" \
        ${octets:+"$octets"}
    "$build/tests/qv-test-server" --scenario "$made/scenario-$drives.json" \
        --tables "$made/tables-$drives.json" -- \
        /usr/bin/time -f '%M' -o /dev/stdout \
        "$build/qvcollectors/qv-smart-collector" 1 \
        >"$made/peak" 2>"$made/output" || rc=$?
    [ "$rc" -eq 0 ] || tail -n 5 "$made/output" >&2
    echo "drives: $drives${octets:+, one raw-data reply of $octets octets}"
    echo "exit code: $rc"
    echo "peak RSS: $(tail -n 1 "$made/peak") kB"
    return "$rc"
}

case "$what" in
    bench) bench "$@" ;;
    memory) memory "$@" ;;
    *)
        echo "usage: $0 SOURCE BUILD bench [RUNS] | memory DRIVES [RAW_OCTETS]" >&2
        exit 64
        ;;
esac
