#!/usr/bin/env bash
# clang-tidy.sh SOURCE BUILD: clang-tidy with the checked-in .clang-tidy
# over the project's own sources in BUILD's compilation database, one file
# per core; any finding fails. Not tests/fuzz/, whose harnesses only build
# with -Dfuzzing=true. The static analyzer, half of the run's time, reads
# what ships and the tools; the tests and benchmarks get every other check.
set -euo pipefail
source=$1 build=$2
log="$build/meson-logs/clang-tidy.log"
root=$(printf '%s' "$source" | sed 's/[][\.*^$?+(){}|]/\\&/g')
rc=0
{
    run-clang-tidy -p "$build" -quiet -j "$(nproc)" \
        "^$root/(platform|qvcollectors|tools)/.*\.cpp\$" || rc=$?
    run-clang-tidy -p "$build" -quiet -j "$(nproc)" \
        -checks=-clang-analyzer-* \
        "^$root/(?!tests/fuzz/)(bench|tests)/.*\.cpp\$" || rc=$?
} >"$log" 2>&1
sed -i 's/\x1b\[[0-9;]*m//g' "$log"
if grep -E '^[^ ]+:[0-9]+:[0-9]+: (fatal )?(warning|error): ' "$log" |
    sort -u | grep .; then
    echo "clang-tidy: findings above (details in $log)"
    exit 1
fi
if [ "$rc" -ne 0 ]; then
    tail -n 20 "$log"
    echo "clang-tidy: failed without a finding (see $log)"
    exit 1
fi
echo "clang-tidy: no findings"
