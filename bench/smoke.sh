#!/usr/bin/env bash
# Runs the benchmarks once on small inputs: the collector, the floor client
# and the busctl script must make the same calls and finish, and the report
# reader must follow every drive of a few days, also in the memory runs (the
# metrics exports, a day with a large raw-data reply). Timing targets are not
# checked here. A cross build passes its exe wrapper (qemu-user) after the
# benchmarks' paths.
set -euo pipefail
generator=$1 template=$2 bench=$3 historyBench=$4
shift 4
wrapper=("$@")
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
python3 "$generator" "$template" 8 "$dir"
python3 "$generator" "$template" 24 "$dir"
# 3 only says a timing target was missed, which one quick run cannot judge.
rc=0
"${wrapper[@]}" "$bench" --runs 1 --busctl-runs 1 "$dir" 8 || rc=$?
[ "$rc" -eq 0 ] || [ "$rc" -eq 3 ]
historyRun() {
    local rc=0
    "${wrapper[@]}" "$historyBench" --days 5 --runs 1 "$@" "$dir" 24 || rc=$?
    [ "$rc" -eq 0 ] || [ "$rc" -eq 3 ]
}
historyRun
historyRun --memory --raw-octets 100000
