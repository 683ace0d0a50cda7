#!/usr/bin/env bash
# Runs the benchmark once on a small server: the collector, the floor client
# and the busctl script must make the same calls and finish. Timing targets
# are not checked here. A cross build passes its exe wrapper (qemu-user)
# after the benchmark's path.
set -euo pipefail
generator=$1 template=$2 bench=$3
shift 3
wrapper=("$@")
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
python3 "$generator" "$template" 8 "$dir"
rc=0
"${wrapper[@]}" "$bench" --runs 1 --busctl-runs 1 "$dir" 8 || rc=$?
# 3 only says a timing target was missed, which one quick run cannot judge.
[ "$rc" -eq 0 ] || [ "$rc" -eq 3 ]
