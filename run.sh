#!/usr/bin/env bash
# The project's two commands:
#   ./run.sh demo [--bus broker]  run the collector over a simulated server
#                   and show its reports (on dbus-daemon, or on dbus-broker)
#   ./run.sh test   install what is missing, build, run every test
#   ./run.sh tidy   build, then clang-tidy over the project's sources
#   ./run.sh format apply .clang-format to every C++ file
#   ./run.sh size   non-blank lines of tests/ against the rest of the code
#   ./run.sh fuzz [SECONDS]   run each fuzz target longer (default 300 s)
#   ./run.sh test-aarch64     cross-build for AArch64, run the tests under qemu
#   ./run.sh bench [RUNS]     the collector against its floor, the reader's history (bench/README.md)
#   ./run.sh memory DRIVES [RAW_OCTETS]  the collector's peak memory over a simulated server
#   ./run.sh mutate [PATTERN] the suite against realistic bugs (tests/README.md)
#   ./run.sh evaluate [DATA]  real drives through collector and reader (tools/evaluate/README.md)
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build="$here/build"

packages=(
    g++ pkg-config meson ninja-build
    libsystemd-dev dbus-daemon
    libgtest-dev libgmock-dev nlohmann-json3-dev libcli11-dev
    util-linux coreutils valgrind systemd bubblewrap
    clang libclang-rt-14-dev clang-tidy clang-format-16
    prometheus prometheus-node-exporter prometheus-alertmanager chromium
    dbus-broker
    flake8 black shellcheck yamllint
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

# clang-tidy with the checked-in .clang-tidy over the project's own sources
# in the normal build's compilation database, one file per core. Not
# tests/fuzz/, whose harnesses only build with -Dfuzzing=true. Any finding
# fails the step.
tidy() {
    local log="$build/meson-logs/clang-tidy.log" rc=0 started=$SECONDS root
    root=$(printf '%s' "$here" | sed 's/[][\.*^$?+(){}|]/\\&/g')
    echo "run.sh: clang-tidy over the project's sources"
    # One command a source file: the collector's sources are compiled twice,
    # with and without the entry, and checking them once is enough.
    mkdir -p "$build/tidy"
    python3 - "$build/compile_commands.json" \
        "$build/tidy/compile_commands.json" <<'EOF'
import json, sys
commands = {}
for entry in json.load(open(sys.argv[1])):
    commands.setdefault(entry["file"], entry)
json.dump(list(commands.values()), open(sys.argv[2], "w"), indent=1)
EOF
    run-clang-tidy -p "$build/tidy" -quiet -j "$(nproc)" \
        "^$root/(?!tests/fuzz/)(bench|platform|qvcollectors|tests|tools)/.*\.cpp\$" \
        >"$log" 2>&1 || rc=$?
    sed -i 's/\x1b\[[0-9;]*m//g' "$log"
    if grep -E '^[^ ]+:[0-9]+:[0-9]+: (fatal )?(warning|error): ' "$log" |
        sort -u | grep .; then
        echo "clang-tidy: findings above (details in $log)"
        return 1
    fi
    if [ "$rc" -ne 0 ]; then
        tail -n 20 "$log"
        echo "clang-tidy: failed without a finding (see $log)"
        return 1
    fi
    echo "clang-tidy: no findings ($((SECONDS - started)) s)"
}

# .clang-format needs clang-format 16 for some of its keys; Debian 12's
# default clang-format is 14.
cppFiles() {
    git -C "$here" ls-files -z '*.cpp' '*.hpp'
}

# Every C++ file as .clang-format lays it out; the files that differ are
# listed and fail the step.
formatCheck() {
    echo "run.sh: clang-format over the project's C++ files"
    local unformatted
    unformatted=$(cd "$here" && cppFiles | xargs -0 clang-format-16 \
        --dry-run 2>&1 | sed -n 's/^\([^:]*\):[0-9]*:[0-9]*: warning: .*/\1/p' |
        sort -u)
    if [ -n "$unformatted" ]; then
        echo "$unformatted"
        echo "clang-format: the files above differ from .clang-format" \
            "(./run.sh format applies it)"
        return 1
    fi
    echo "clang-format: every file as .clang-format lays it out"
}

# Non-blank lines of tests/ (but its fuzz corpora, the expected reports and
# its documentation) against the rest of the project's code (no
# documentation, no dot files).
sizeCount() {
    cd "$here"
    local tests rest
    tests=$(git ls-files tests |
        grep -v '^tests/fuzz/corpus/\|^tests/e2e/expected/\|\.md$' |
        xargs cat | grep -cv '^\s*$')
    rest=$(git ls-files | grep -v '^tests/\|\.md$\|^\.\|/\.\|LICENSE\|\.png$' |
        xargs cat | grep -cv '^\s*$')
    echo "size: $tests lines of tests against $rest of the rest," \
        "$(awk -v t="$tests" -v r="$rest" 'BEGIN { printf "%.3f", t / r }')"
}

# The same sources and tests with AddressSanitizer and
# UndefinedBehaviorSanitizer; any finding ends the program that made it.
sanitized="$here/build-sanitize"
compileSanitized() {
    configure "$sanitized" -Db_sanitize=address,undefined -Db_lundef=false \
        -Dcpp_args=-fno-sanitize-recover=all -Dbuildtype=debug
    ninja -C "$sanitized"
}

# startServer SCENARIO TABLES BUS: a private bus (dbus-daemon, or
# dbus-broker with BUS broker) and the simulator serving SCENARIO, in a
# scratch directory that holds the SMART tables file TABLES as tables.json
# and the collector's /mmc2; all stopped when the script ends.
startServer() {
    demoScratch=$(mktemp -d)
    demoBus='' demoSimulator='' demoJournal=''
    trap demoCleanup EXIT
    local scratch=$demoScratch
    mkdir -p "$scratch/mmc2/qvcollection/vok/storagelog"
    # An abstract socket: reachable from inside the collector's sandbox.
    local eavesdrop=' eavesdrop="true"' listen="<listen>unix:abstract=$scratch/bus</listen>"
    [ "$3" = broker ] && eavesdrop='' listen=''
    printf '%s' "<busconfig><type>system</type>$listen
<auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/>
<allow own=\"*\"/><allow send_destination=\"*\"$eavesdrop/>
<allow receive_sender=\"*\"/></policy></busconfig>" \
        > "$scratch/bus.conf"
    if [ "$3" = broker ]; then
        demoBroker
    else
        dbus-daemon --config-file="$scratch/bus.conf" --nofork --nopidfile \
            --print-address > "$scratch/address" 2>/dev/null &
        demoBus=$!
        waitForLine "$scratch/address"
    fi
    export DBUS_SYSTEM_BUS_ADDRESS DBUS_STARTER_BUS_TYPE=system
    DBUS_SYSTEM_BUS_ADDRESS=$(head -n1 "$scratch/address")
    cp "$2" "$scratch/tables.json"
    "$build/tools/storage-sim/storage-sim" --scenario "$1" > "$scratch/sim" &
    demoSimulator=$!
    waitForLine "$scratch/sim"
}

# confined PROGRAM [ARGS...]: PROGRAM against the server startServer made,
# under bubblewrap, whose /mmc2 is the scratch directory's: the collector's
# fixed report paths land there.
confined() {
    local scratch=$demoScratch
    PLATFORM_SMART_TABLES="$scratch/tables.json" DLOG_FILE="$scratch/dlog.log" \
        bwrap --ro-bind /usr /usr --symlink usr/lib /lib \
        --symlink usr/lib64 /lib64 --symlink usr/bin /bin --ro-bind /etc /etc \
        --dev /dev --proc /proc --bind "$scratch" "$scratch" \
        --bind "$scratch/mmc2" /mmc2 --ro-bind "$build" "$build" "$@"
}

# demo SCENARIO BUS: one collection-mode run of the collector over the
# simulator serving SCENARIO; then both reports, the exit code and the
# reader's health view.
demo() {
    startServer "$1" "$1" "$2"
    local reports="$demoScratch/mmc2/qvcollection/vok/storagelog"
    local rc=0
    confined "$build/qvcollectors/qv-smart-collector" 0 || rc=$?
    local report
    for report in SmartLogs.json SmartRawData.json; do
        echo "==== /mmc2/qvcollection/vok/storagelog/$report ===="
        cat "$reports/$report" 2>/dev/null || echo "(not written)"
        echo
    done
    echo "==== diagnostic log: $(wc -l < "$demoScratch/dlog.log") records ===="
    echo "exit code: $rc"
    echo "==== qv-smart-report ===="
    # Its exit status adds 4 for a drive with a warning and 8 for a failed
    # one: the demo's drives are meant to show both, only damage (1) counts.
    local verdicts=0
    "$build/tools/qv-smart-report/qv-smart-report" \
        "$reports/SmartLogs.json" "$reports/SmartRawData.json" || verdicts=$?
    echo "qv-smart-report exit status: $verdicts (4: a warning, 8: a failure)"
    [ $((verdicts & 3)) -eq 0 ] || return 1
    return $rc
}

# memory DRIVES [RAW_OCTETS]: the peak memory of one daily-mode run over
# DRIVES drives as bench/make-scenario.py lays them out, the first
# solid-state drive's raw-data reply RAW_OCTETS octets long if given: the
# figure MemoryMax= of qv-smart-collector.service is chosen against. The
# collector's own output is shown only when the run failed.
memory() {
    local drives=$1 octets=${2:-} made
    made=$(mktemp -d)
    python3 "$here/bench/make-scenario.py" \
        "$here/tools/storage-sim/scenarios/demo.json" "$drives" "$made" >/dev/null
    if [ -n "$octets" ]; then
        python3 - "$made/scenario-$drives.json" "$octets" <<'EOF'
import json, sys
path, octets = sys.argv[1], int(sys.argv[2])
scenario = json.load(open(path))
first = next(fqdd for fqdd, drive in scenario["drives"].items()
             if "rawData" in drive)
scenario["drives"][first]["rawData"] = {"dataLength": octets}
json.dump(scenario, open(path, "w"))
EOF
    fi
    startServer "$made/scenario-$drives.json" "$made/tables-$drives.json" daemon
    rm -rf "$made"
    local rc=0
    confined /usr/bin/time -f '%M' -o "$demoScratch/peak" \
        "$build/qvcollectors/qv-smart-collector" 1 > "$demoScratch/output" 2>&1 ||
        rc=$?
    [ "$rc" -eq 0 ] || tail -n 5 "$demoScratch/output" >&2
    echo "drives: $drives${octets:+, one raw-data reply of $octets octets}"
    echo "exit code: $rc"
    echo "peak RSS: $(cat "$demoScratch/peak") kB"
    return $rc
}

# dbus-broker as the controller runs it, started by its launcher in a
# mount namespace of its own: the launcher takes its listening socket from
# socket activation and logs to the journal's socket, which a private /run
# provides (a reader that drops what it gets). Nothing of the host's /run
# is touched.
demoBroker() {
    local scratch=$demoScratch
    mkdir -p "$scratch/journal"
    python3 -c 'import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1] + "/journal/socket")
open(sys.argv[1] + "/journal/ready", "w").write("ready")
while True:
    s.recv(65536)' "$scratch" &
    demoJournal=$!
    waitForLine "$scratch/journal/ready"
    echo "unix:abstract=$scratch/bus" > "$scratch/address"
    DBUS_SYSTEM_BUS_ADDRESS="unix:abstract=$scratch/bus" \
        unshare --mount --propagation private sh -c '
        mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/journal &&
        mount --bind "$0/journal" /run/systemd/journal &&
        exec systemd-socket-activate -E DBUS_SYSTEM_BUS_ADDRESS \
            -l "@$0/bus" dbus-broker-launch --scope system \
            --config-file="$0/bus.conf"' "$scratch" 2>/dev/null &
    demoBus=$!
    local tries
    for tries in $(seq 100); do
        busctl --address="unix:abstract=$scratch/bus" list >/dev/null 2>&1 &&
            return 0
        sleep 0.05
    done
    echo "run.sh: dbus-broker did not start" >&2
    return 1
}

# The simulator goes first: it would report the bus going away. The broker
# goes before its launcher, which then reaps it.
demoCleanup() {
    local pid
    if [ -n "$demoSimulator" ]; then
        { kill "$demoSimulator" && wait "$demoSimulator"; } 2>/dev/null || true
    fi
    if [ -n "$demoBus" ]; then
        for pid in $(cat "/proc/$demoBus/task/$demoBus/children" 2>/dev/null); do
            kill "$pid" 2>/dev/null || true
        done
        for pid in $(seq 100); do
            kill -0 "$demoBus" 2>/dev/null || break
            [ "$(cut -d' ' -f3 "/proc/$demoBus/stat" 2>/dev/null)" = Z ] && break
            sleep 0.05
        done
    fi
    for pid in $demoBus $demoJournal; do
        { kill "$pid" && wait "$pid"; } 2>/dev/null || true
    done
    rm -rf "$demoScratch"
}

waitForLine() {
    local tries
    for tries in $(seq 100); do
        [ -s "$1" ] && return 0
        sleep 0.05
    done
    echo "run.sh: $1 stayed empty" >&2
    return 1
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
        for step in formatCheck tidy; do
            if "$step"; then
                passedTotal=$((passedTotal + 1))
            else
                failedTotal=$((failedTotal + 1))
                status=1
            fi
        done
        runTests "$build" || status=1
        echo "run.sh: end-to-end tests with the collector under valgrind"
        QV_COLLECTOR_WRAPPER="/usr/bin/valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect -q" \
            runTests "$build" --suite e2e || status=1
        echo "run.sh: again with AddressSanitizer and UndefinedBehaviorSanitizer"
        compileSanitized
        runTests "$sanitized" --no-suite broker || status=1
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
    tidy)
        compile
        tidy
        ;;
    format)
        installPackages
        cd "$here" && cppFiles | xargs -0 clang-format-16 -i
        ;;
    size)
        sizeCount
        ;;
    demo)
        # Build quietly: the demo's output is the collector's reports.
        compile > "$here/.demo-build.log" 2>&1 || {
            cat "$here/.demo-build.log" >&2
            exit 1
        }
        # --bus broker: on dbus-broker, as the controller runs it.
        bus=daemon
        [ "${2:-}" = --bus ] && bus=${3:-daemon}
        demo "$here/tools/storage-sim/scenarios/demo.json" "$bus"
        ;;
    test-aarch64)
        # The controller's CPU: everything cross-built, every test run under
        # qemu-user, which the cross file names as the wrapper of the build's
        # programs (the tests start the collector, the simulator and the
        # reader through it too); dbus-daemon is the host's.
        installPackages g++-aarch64-linux-gnu gcc-aarch64-linux-gnu \
            qemu-user libsystemd-dev:arm64 libstdc++6:arm64 \
            libgtest-dev:arm64 libgmock-dev:arm64
        cross="$here/build-aarch64"
        configure "$cross" --cross-file "$here/build-aux/aarch64-linux-gnu.ini"
        ninja -C "$cross"
        status=0
        runTests "$cross" --timeout-multiplier 4 --no-suite broker || status=1
        # The image build, and its collector through the native end-to-end
        # suite under qemu.
        echo "run.sh: image build (AArch64, minsize, LTO, no tests)"
        compile
        if imageCollector=$("$here/tests/image/check-image-build.sh" \
            "$here" "$here/build-image" "$here/build-image/destdir"); then
            passedTotal=$((passedTotal + 1))
            QV_COLLECTOR="$imageCollector" QV_COLLECTOR_WRAPPER=/usr/bin/qemu-aarch64 \
                runTests "$build" --suite e2e || status=1
        else
            failedTotal=$((failedTotal + 1))
            status=1
        fi
        echo "tests (aarch64): ${passedTotal} passed, ${failedTotal} failed"
        exit $status
        ;;
    memory)
        # Not part of `test`: a measurement (bench/README.md).
        [ $# -ge 2 ] || { echo "usage: $0 memory DRIVES [RAW_OCTETS]" >&2; exit 64; }
        installPackages time
        compile > "$here/.bench-build.log" 2>&1 || {
            cat "$here/.bench-build.log" >&2
            exit 1
        }
        memory "$2" "${3:-}"
        ;;
    bench)
        # Not part of `test`: timing belongs here, never in a test.
        compile > "$here/.bench-build.log" 2>&1 || {
            cat "$here/.bench-build.log" >&2
            exit 1
        }
        scenarios="$build/bench/scenarios"
        for drives in 8 24 64 256 500 1024; do
            python3 "$here/bench/make-scenario.py" \
                "$here/tools/storage-sim/scenarios/demo.json" "$drives" "$scenarios"
        done
        status=0
        "$build/bench/qv-bench" --runs "${2:-15}" --busctl-runs 3 \
            "$scenarios" 8 64 256 1024 || status=$?
        # The reader over a year of daily reports of a 24-drive server.
        historyStatus=0
        "$build/bench/qv-bench-history" --runs "${2:-15}" --days 365 \
            "$scenarios" 24 || historyStatus=$?
        # The metrics unit's export over two years of a 500-drive server:
        # its memory must not grow with the days.
        memoryStatus=0
        "$build/bench/qv-bench-history" --memory --runs 3 --days 730 \
            "$scenarios" 500 || memoryStatus=$?
        if [ "$historyStatus" -eq 0 ] || [ "$memoryStatus" -eq 1 ]; then
            historyStatus=$memoryStatus
        fi
        # 0 when both met their targets; a failed run (1) outweighs a
        # missed target (3).
        if [ "$status" -eq 0 ] ||
            { [ "$status" -eq 3 ] && [ "$historyStatus" -ne 0 ]; }; then
            status=$historyStatus
        fi
        exit $status
        ;;
    evaluate)
        # Not part of `test`: minutes of collector runs over real drives'
        # figures, read from DATA (default ../shared/realdata beside the
        # checkout), never copied into the project.
        compile > "$here/.evaluate-build.log" 2>&1 || {
            cat "$here/.evaluate-build.log" >&2
            exit 1
        }
        exec python3 "$here/tools/evaluate/evaluate.py" --build "$build" \
            --data "${2:-${QV_REALDATA:-$here/../shared/realdata}}"
        ;;
    mutate)
        # Not part of `test`: one build and one suite run per mutation.
        installPackages rsync
        exec "$here/tests/mutate/run-mutations.sh" "$here" \
            "$here/build-mutate" "${2:-}"
        ;;
    fuzz)
        installPackages
        exec "$here/tests/fuzz/run-fuzz.sh" "${2:-300}"
        ;;
    *)
        echo "usage: $0 demo [--bus broker]|test|tidy|format|size|test-aarch64|fuzz [SECONDS]|bench [RUNS]|memory DRIVES [RAW_OCTETS]|mutate [PATTERN]|evaluate [DATA]" >&2
        exit 64
        ;;
esac
