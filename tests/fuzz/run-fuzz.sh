#!/usr/bin/env bash
# Builds the libFuzzer targets and runs each for a bounded time.
#   tests/fuzz/run-fuzz.sh [SECONDS]      default 5 seconds a target
# FUZZ_BUILD picks the build directory (default <repo>/build-fuzz). Each
# target starts from a copy of its committed corpus, so the repository never
# changes; new inputs and crash reproducers stay in the run directory, which
# is printed and kept when something was found or FUZZ_KEEP=1. Exits non-zero on any
# finding; an input running longer than 10 seconds counts as one.
set -euo pipefail

seconds=${1:-5}
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${FUZZ_BUILD:-$root/build-fuzz}
targets=(dbus-reply smart-tables writers report-reader history)
# Descriptors libFuzzer closes in each target: standard output always; the
# table stand-in also reports every rejected file on standard error, so it
# loses standard error too (sanitizer reports still come through). The
# other targets keep it for their own finding messages.
declare -A closeFds=([dbus-reply]=1 [smart-tables]=3 [writers]=1 [report-reader]=1 [history]=1)

configure() {
    local options=(
        -Dfuzzing=true "-Db_sanitize=address,undefined" -Db_lundef=false
        -Dbuildtype=debugoptimized
        "-Dcpp_args=-fsanitize=fuzzer-no-link -fno-sanitize-recover=all"
    )
    if [ -f "$build/build.ninja" ]; then
        meson setup --reconfigure "$build" "$root" "${options[@]}" >/dev/null
    else
        CXX=clang++ CC=clang meson setup "$build" "$root" "${options[@]}" \
            >/dev/null
    fi
}

# Quiet unless the build fails, then with the compiler's words.
if ! output=$(configure 2>&1 &&
    ninja -C "$build" "${targets[@]/#/tests/fuzz/fuzz-}" 2>&1); then
    echo "$output" >&2
    echo "run-fuzz: building the fuzz targets failed" >&2
    exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/qv-fuzz.XXXXXX")
echo "run-fuzz: ${seconds}s a target, run directory $work"
status=0
for target in "${targets[@]}"; do
    corpus="$work/$target/corpus"
    mkdir -p "$corpus" "$work/$target/artifacts"
    cp -r "$here/corpus/$target/." "$corpus/"
    log="$work/$target/log"
    rc=0
    (cd "$work/$target" &&
        ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
            UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
            "$build/tests/fuzz/fuzz-$target" -max_total_time="$seconds" -timeout=10 \
            -close_fd_mask="${closeFds[$target]}" -print_final_stats=1 \
            -artifact_prefix="$work/$target/artifacts/" "$corpus" \
            >"$log" 2>&1) || rc=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    if [ "$rc" -ne 0 ]; then
        status=1
        echo "run-fuzz: $target: FINDING (exit $rc) after ${runs:-?} executions"
        grep -E 'ERROR|finding|SUMMARY|Test unit written' "$log" | head -20
        echo "run-fuzz: full log $log"
    else
        echo "run-fuzz: $target: ${runs:-?} executions, no finding"
    fi
done
if [ "$status" -eq 0 ]; then
    [ "${FUZZ_KEEP:-0}" = 1 ] || rm -rf "$work"
    echo "run-fuzz: no findings"
fi
exit $status
