#!/usr/bin/env bash
# The project's two commands:
#   ./run.sh demo   run the collector over a simulated server and show its reports
#   ./run.sh test   install what is missing, build, run every test
#   ./run.sh fuzz [SECONDS]   run each fuzz target longer (default 300 s)
#   ./run.sh test-aarch64     cross-build for AArch64, run the tests under qemu
#   ./run.sh bench [RUNS]     the collector against its floor (bench/README.md)
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build="$here/build"

packages=(
    g++ pkg-config meson ninja-build
    libsystemd-dev dbus-daemon
    libgtest-dev libgmock-dev nlohmann-json3-dev
    util-linux coreutils valgrind systemd
    clang libclang-rt-14-dev
)

missingPackages() {
    local p
    for p in "${packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null |
            grep -q '^install ok installed$' || echo "$p"
    done
}

installPackages() {
    local missing
    missing=$(missingPackages "$@")
    [ -z "$missing" ] && return 0
    echo "run.sh: installing:" $missing
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    if [[ " $missing " == *":arm64 "* ]] &&
        ! dpkg --print-foreign-architectures | grep -qx arm64; then
        "${sudo[@]}" dpkg --add-architecture arm64
    fi
    "${sudo[@]}" apt-get update -qq
    # shellcheck disable=SC2086
    "${sudo[@]}" apt-get install -y -qq --no-install-recommends $missing
}

# configure DIR [meson options...]
configure() {
    local dir=$1
    shift
    if [ -f "$dir/build.ninja" ]; then
        meson setup --reconfigure "$dir" "$here" "$@" >/dev/null
    else
        meson setup "$dir" "$here" "$@"
    fi
}

compile() {
    installPackages
    configure "$build"
    ninja -C "$build"
}

# The same sources and tests with AddressSanitizer and
# UndefinedBehaviorSanitizer; any finding ends the program that made it.
sanitized="$here/build-sanitize"
compileSanitized() {
    configure "$sanitized" -Db_sanitize=address,undefined -Db_lundef=false \
        -Dcpp_args=-fno-sanitize-recover=all -Dbuildtype=debug
    ninja -C "$sanitized"
}

# runTests DIR [meson test options]: runs tests of one build; adds to the
# totals.
passedTotal=0
failedTotal=0
runTests() {
    local dir=$1 rc=0 json="$1/meson-logs/testlog.json"
    shift
    rm -f "$json"
    meson test -C "$dir" --print-errorlogs --num-processes "$(nproc)" "$@" ||
        rc=$?
    local passed=0 failed=0
    if [ -f "$json" ]; then
        passed=$(grep -c '"result": "OK"' "$json" || true)
        failed=$(grep -cE '"result": "(FAIL|TIMEOUT|ERROR|UNEXPECTEDPASS)"' "$json" || true)
    fi
    passedTotal=$((passedTotal + passed))
    failedTotal=$((failedTotal + failed))
    [ "$passed" -gt 0 ] || rc=1
    return $rc
}

case "${1:-}" in
    test)
        compile
        status=0
        runTests "$build" || status=1
        echo "run.sh: end-to-end tests with the collector under valgrind"
        QV_COLLECTOR_WRAPPER="/usr/bin/valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect -q" \
            runTests "$build" --suite e2e || status=1
        echo "run.sh: again with AddressSanitizer and UndefinedBehaviorSanitizer"
        compileSanitized
        runTests "$sanitized" || status=1
        echo "run.sh: fuzz targets, 5 seconds each"
        if "$here/tests/fuzz/run-fuzz.sh" 5; then
            passedTotal=$((passedTotal + 1))
        else
            failedTotal=$((failedTotal + 1))
            status=1
        fi
        echo "tests: ${passedTotal} passed, ${failedTotal} failed"
        exit $status
        ;;
    demo)
        # Build quietly: the demo's output is the collector's reports.
        compile > "$here/.demo-build.log" 2>&1 || {
            cat "$here/.demo-build.log" >&2
            exit 1
        }
        exec "$build/tests/e2e/qv-demo" "$here/tests/scenarios/demo.json"
        ;;
    test-aarch64)
        # Cross build for the controller's CPU; tests under qemu-aarch64.
        # Kept out of `test` to hold that under ten minutes on two cores.
        installPackages g++-aarch64-linux-gnu qemu-user libsystemd-dev:arm64 \
            libstdc++6:arm64 libgtest-dev:arm64 libgmock-dev:arm64
        configure "$build"
        ninja -C "$build"
        exec "$here/tests/aarch64/run-aarch64.sh" "$here/build-aarch64"
        ;;
    bench)
        # Not part of `test`: timing belongs here, never in a test.
        compile > "$here/.bench-build.log" 2>&1 || {
            cat "$here/.bench-build.log" >&2
            exit 1
        }
        scenarios="$build/bench/scenarios"
        for drives in 8 64 256 1024; do
            python3 "$here/bench/make-scenario.py" \
                "$here/tests/scenarios/demo.json" "$drives" "$scenarios"
        done
        exec "$build/bench/qv-bench" --runs "${2:-15}" --busctl-runs 3 \
            "$scenarios" 8 64 256 1024
        ;;
    fuzz)
        installPackages
        exec "$here/tests/fuzz/run-fuzz.sh" "${2:-300}"
        ;;
    *)
        echo "usage: $0 demo|test|test-aarch64|fuzz [SECONDS]|bench [RUNS]" >&2
        exit 64
        ;;
esac
