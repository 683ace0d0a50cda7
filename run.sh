#!/usr/bin/env bash
# The project's two commands:
#   ./run.sh demo   run the collector over a simulated server and show its reports
#   ./run.sh test   install what is missing, build, run every test
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build="$here/build"

packages=(
    g++ pkg-config meson ninja-build
    libsystemd-dev dbus-daemon
    libgtest-dev libgmock-dev nlohmann-json3-dev
    util-linux coreutils
)

missingPackages() {
    local p
    for p in "${packages[@]}"; do
        dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null |
            grep -q '^install ok installed$' || echo "$p"
    done
}

installPackages() {
    local missing
    missing=$(missingPackages)
    [ -z "$missing" ] && return 0
    echo "run.sh: installing:" $missing
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    "${sudo[@]}" apt-get update -qq
    # shellcheck disable=SC2086
    "${sudo[@]}" apt-get install -y -qq --no-install-recommends $missing
}

configure() {
    if [ -f "$build/build.ninja" ]; then
        meson setup --reconfigure "$build" "$here" >/dev/null
    else
        meson setup "$build" "$here"
    fi
}

compile() {
    installPackages
    configure
    ninja -C "$build"
}

# Prints meson's summary and one closing line "N passed, N failed".
runTests() {
    local rc=0 json="$build/meson-logs/testlog.json"
    rm -f "$json"
    meson test -C "$build" --print-errorlogs --num-processes "$(nproc)" || rc=$?
    local passed=0 failed=0
    if [ -f "$json" ]; then
        passed=$(grep -c '"result": "OK"' "$json" || true)
        failed=$(grep -cE '"result": "(FAIL|TIMEOUT|ERROR|UNEXPECTEDPASS)"' "$json" || true)
    fi
    echo "tests: ${passed} passed, ${failed} failed"
    [ "$passed" -gt 0 ] || rc=1
    return $rc
}

case "${1:-}" in
    test)
        compile
        runTests
        ;;
    demo)
        # Build quietly: the demo's output is the collector's reports.
        compile > "$here/.demo-build.log" 2>&1 || {
            cat "$here/.demo-build.log" >&2
            exit 1
        }
        exec "$build/tests/e2e/qv-demo" "$here/tests/scenarios/demo.json"
        ;;
    *)
        echo "usage: $0 demo|test" >&2
        exit 64
        ;;
esac
