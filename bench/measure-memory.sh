#!/bin/sh
# Peak memory of one daily-mode run of the collector over a simulated server:
# the figure MemoryMax= of qv-smart-collector.service is chosen against.
#   measure-memory.sh BUILD_DIR DRIVES [RAW_OCTETS]
# DRIVES drives as bench/make-scenario.py lays them out; with RAW_OCTETS the
# first solid-state drive's raw-data reply carries that many octets instead.
# A private dbus-daemon and the storage simulator serve the run; bubblewrap
# gives the collector a scratch /mmc2. Prints the collector's exit code and
# its peak resident set size (/usr/bin/time); its own output only when the
# run failed.
set -eu
if [ $# -lt 2 ]; then
    echo "usage: $0 BUILD_DIR DRIVES [RAW_OCTETS]" >&2
    exit 2
fi
build=$(cd "$1" && pwd)
drives=$2
octets=${3:-}
source=$(cd "$(dirname "$0")/.." && pwd)
scratch=$(mktemp -d)
bus='' simulator=''
cleanup() {
    for pid in $simulator $bus; do
        if kill "$pid" 2>/dev/null; then
            wait "$pid" 2>/dev/null || true
        fi
    done
    rm -rf "$scratch"
}
trap cleanup EXIT

waitForLine() {
    for _ in $(seq 200); do
        [ -s "$1" ] && return 0
        sleep 0.05
    done
    echo "measure-memory: $1 stayed empty" >&2
    exit 1
}

python3 "$source/bench/make-scenario.py" \
    "$source/tools/storage-sim/scenarios/demo.json" "$drives" "$scratch"
scenario=$scratch/scenario-$drives.json
if [ -n "$octets" ]; then
    python3 - "$scenario" "$octets" <<'EOF'
import json, sys
path, octets = sys.argv[1], int(sys.argv[2])
scenario = json.load(open(path))
first = next(fqdd for fqdd, drive in scenario["drives"].items()
             if "rawData" in drive)
scenario["drives"][first]["rawData"] = {"dataLength": octets}
json.dump(scenario, open(path, "w"))
EOF
fi

# The system bus's default message limit (32 MiB) applies here as well.
mkdir -p "$scratch/mmc2"
cat > "$scratch/bus.conf" <<EOF
<busconfig><type>system</type>
<listen>unix:abstract=$scratch/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/>
<allow send_destination="*"/><allow receive_sender="*"/></policy>
</busconfig>
EOF
dbus-daemon --config-file="$scratch/bus.conf" --nofork --nopidfile \
    --print-address > "$scratch/address" 2>/dev/null &
bus=$!
waitForLine "$scratch/address"
DBUS_SYSTEM_BUS_ADDRESS=$(head -n1 "$scratch/address")
export DBUS_SYSTEM_BUS_ADDRESS
"$build/tools/storage-sim/storage-sim" --scenario "$scenario" \
    > "$scratch/simulator" &
simulator=$!
waitForLine "$scratch/simulator"

rc=0
PLATFORM_SMART_TABLES="$scratch/tables-$drives.json" \
    DLOG_FILE="$scratch/dlog.log" \
    bwrap --ro-bind /usr /usr --symlink usr/lib /lib \
    --symlink usr/lib64 /lib64 --symlink usr/bin /bin --ro-bind /etc /etc \
    --dev /dev --proc /proc --bind "$scratch" "$scratch" \
    --bind "$scratch/mmc2" /mmc2 --ro-bind "$build" "$build" \
    /usr/bin/time -f '%M' -o "$scratch/peak" \
    "$build/qvcollectors/qv-smart-collector" 1 > "$scratch/output" 2>&1 ||
    rc=$?
[ "$rc" -eq 0 ] || tail -n 5 "$scratch/output" >&2
echo "drives: $drives${octets:+, one raw-data reply of $octets octets}"
echo "exit code: $rc"
echo "peak RSS: $(cat "$scratch/peak") kB"
