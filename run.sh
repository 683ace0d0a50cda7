#!/usr/bin/env bash
# The project's two commands:
#   ./run.sh demo [--bus broker]  the collector over a simulated server, its
#                                 reports and the reader's view of them
#   ./run.sh test                 install what is missing, build, run every
#                                 test pass; nothing may be skipped
# and the rest of a developer's day (each is one meson or script call):
#   ./run.sh test-aarch64         cross-build, every test under qemu-user,
#                                 and the image build's collector
#   ./run.sh bench [RUNS]         the measurements (bench/README.md)
#   ./run.sh memory DRIVES [RAW_OCTETS]  the collector's peak memory
#   ./run.sh evaluate [DATA]      real drives through collector and reader
#   ./run.sh mutate [PATTERN]     the suite against realistic bugs
#   ./run.sh fuzz [SECONDS]       each fuzz target longer (default 300 s)
#   ./run.sh format | tidy        apply .clang-format | run clang-tidy
#   ./run.sh size                 lines of tests/ against the rest
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build="$here/build"

packages=(
    g++ pkg-config meson ninja-build
    libsystemd-dev dbus-daemon
    libgtest-dev libgmock-dev nlohmann-json3-dev libcli11-dev
    util-linux coreutils valgrind systemd bubblewrap time rsync
    clang libclang-rt-14-dev clang-tidy clang-format-16
    prometheus prometheus-node-exporter prometheus-alertmanager chromium
    dbus-broker
    flake8 black shellcheck yamllint
)

# installPackages [MORE...]: apt-get what is not installed yet.
installPackages() {
    local missing=() p
    for p in "${packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null |
            grep -q '^install ok installed$' || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "run.sh: installing: ${missing[*]}"
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    if [[ " ${missing[*]} " == *":arm64 "* ]] &&
        ! dpkg --print-foreign-architectures | grep -qx arm64; then
        "${sudo[@]}" dpkg --add-architecture arm64
    fi
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# compile [DIR [meson options...]]: configure (once) and build.
compile() {
    local dir=${1:-$build}
    shift || true
    if [ -f "$dir/build.ninja" ]; then
        meson setup --reconfigure "$dir" "$here" "$@" >/dev/null
    else
        meson setup "$dir" "$here" "$@"
    fi
    ninja -C "$dir"
}

# quietly COMMAND...: its output only when it fails.
quietly() {
    local log
    log=$(mktemp)
    "$@" >"$log" 2>&1 || { cat "$log" >&2; rm -f "$log"; return 1; }
    rm -f "$log"
}

# meson's test runner; with QV_NO_SKIP a test whose tool or data is missing
# fails instead of being skipped.
mesonTest() {
    QV_NO_SKIP=1 meson test --print-errorlogs --num-processes "$(nproc)" "$@"
}

# demo BUS: one collection-mode run of the collector over the demo server,
# then both reports, its exit code and the reader's health view.
demo() {
    local kept rc=0 verdicts=0 report
    kept=$(mktemp -d)
    trap 'rm -rf "$kept"' EXIT
    "$build/tests/qv-test-server" --bus "$1" --keep "$kept" \
        --scenario "$here/tools/storage-sim/scenarios/demo.json" -- \
        "$build/qvcollectors/qv-smart-collector" 0 || rc=$?
    local reports="$kept/mmc2/qvcollection/vok/storagelog"
    for report in SmartLogs.json SmartRawData.json; do
        echo "==== /mmc2/qvcollection/vok/storagelog/$report ===="
        cat "$reports/$report" 2>/dev/null || echo "(not written)"
        echo
    done
    echo "==== diagnostic log: $(wc -l <"$kept/dlog.log") records ===="
    echo "exit code: $rc"
    echo "==== qv-smart-report ===="
    # It adds 4 for a drive with a warning and 8 for a failed one: the
    # demo's drives show both; only damage or usage (1, 2) count.
    "$build/tools/qv-smart-report/qv-smart-report" \
        "$reports/SmartLogs.json" "$reports/SmartRawData.json" || verdicts=$?
    echo "qv-smart-report exit status: $verdicts (4: a warning, 8: a failure)"
    [ $((verdicts & 3)) -eq 0 ] || return 1
    return $rc
}

case "${1:-}" in
    test)
        installPackages
        compile
        status=0
        mesonTest -C "$build" || status=1
        echo "run.sh: the end-to-end cases with the collector under valgrind"
        mesonTest -C "$build" --setup valgrind --suite e2e || status=1
        echo "run.sh: with AddressSanitizer and UndefinedBehaviorSanitizer"
        compile "$here/build-sanitize" -Db_sanitize=address,undefined \
            -Db_lundef=false -Dcpp_args=-fno-sanitize-recover=all \
            -Dbuildtype=debug >/dev/null
        mesonTest -C "$here/build-sanitize" --setup sanitize || status=1
        echo "run.sh: fuzz targets, 5 seconds each"
        "$here/tests/fuzz/run-fuzz.sh" 5 || status=1
        exit $status
        ;;
    test-aarch64)
        # Everything cross-built and run under qemu-user, which the cross
        # file names as the wrapper of the build's programs; then the image
        # build and its collector through the native end-to-end cases.
        installPackages g++-aarch64-linux-gnu gcc-aarch64-linux-gnu \
            qemu-user libsystemd-dev:arm64 libstdc++6:arm64 \
            libgtest-dev:arm64 libgmock-dev:arm64
        status=0
        compile "$here/build-aarch64" \
            --cross-file "$here/build-aux/aarch64-linux-gnu.ini"
        meson test -C "$here/build-aarch64" --print-errorlogs \
            --setup aarch64 || status=1
        echo "run.sh: image build (AArch64, minsize, LTO, no tests)"
        compile
        "$here/tests/image/check-image-build.sh" "$here" \
            "$here/build-image" "$here/build-image/destdir" >/dev/null &&
            mesonTest -C "$build" --setup image --suite e2e || status=1
        exit $status
        ;;
    demo)
        quietly installPackages
        quietly compile
        bus=daemon
        [ "${2:-}" = --bus ] && bus=${3:-daemon}
        demo "$bus"
        ;;
    bench | memory)
        quietly installPackages
        quietly compile
        exec "$here/bench/run-bench.sh" "$here" "$build" "$@"
        ;;
    evaluate)
        # Minutes of collector runs over real drives' figures, read from
        # DATA (default ../shared/realdata), never copied into the project.
        quietly installPackages
        quietly compile
        exec python3 "$here/tools/evaluate/evaluate.py" --build "$build" \
            --data "${2:-${QV_REALDATA:-$here/../shared/realdata}}"
        ;;
    mutate)
        installPackages
        exec "$here/tests/mutate/run-mutations.sh" "$here" \
            "$here/build-mutate" "${2:-}"
        ;;
    fuzz)
        installPackages
        exec "$here/tests/fuzz/run-fuzz.sh" "${2:-300}"
        ;;
    format)
        installPackages
        exec "$here/build-aux/clang-format.sh" "$here" --fix
        ;;
    tidy)
        installPackages
        compile
        exec meson test -C "$build" --print-errorlogs tidy
        ;;
    size)
        # Non-blank lines of tests/ (not its fuzz corpora, expected reports
        # or documentation) against the rest of the code (no documentation,
        # no dot files).
        cd "$here"
        tests=$(git ls-files tests |
            grep -v '^tests/fuzz/corpus/\|^tests/e2e/expected/\|\.md$' |
            xargs cat | grep -cv '^\s*$')
        rest=$(git ls-files | grep -v '^tests/\|\.md$\|^\.\|/\.\|\.png$' |
            xargs cat | grep -cv '^\s*$')
        echo "size: $tests lines of tests against $rest of the rest," \
            "$(awk -v t="$tests" -v r="$rest" 'BEGIN { printf "%.3f", t / r }')"
        ;;
    *)
        sed -n '2,16p' "$0" >&2
        exit 64
        ;;
esac
