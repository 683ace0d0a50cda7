#!/bin/sh
# Installs the build into a scratch root and checks the systemd units there
# with systemd-analyze, as an image build would lay them out: verify finds
# nothing to say, and both services' sandboxes rate below 5.0.
#   verify-install.sh BUILD_DIR BINDIR UNIT_DIR
set -eu
build=$1
bindir=$2
unitdir=$3
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

meson install -C "$build" --destdir "$root" --no-rebuild --quiet >/dev/null
test -x "$root$bindir/qv-smart-collector"
test -x "$root$bindir/qv-smart-report"
units="qv-smart-collector.service qv-smart-collector.timer qv-smart-metrics.service"
for unit in $units; do
    test -f "$root$unitdir/$unit"
done
# Under --root systemd looks for units only inside the root: give it the
# host's standard units (timers.target, sysinit.target, ...) beside ours.
mkdir -p "$root/etc/systemd/system" "$root/usr/lib/systemd/system"
cp -rn /lib/systemd/system/. "$root$unitdir/"
# verify exits 0 on many mistakes it only warns about: any word from it
# counts as a failure.
status=0
# shellcheck disable=SC2086
complaints=$(cd "$root$unitdir" && systemd-analyze verify --root="$root" \
    $units 2>&1) || status=$?
if [ "$status" -ne 0 ] || [ -n "$complaints" ]; then
    echo "$complaints" >&2
    exit 1
fi
# The sandboxes, as systemd-analyze security rates them from the unit files
# alone. Its scale runs from 0 to 100 (printed as 0.0 to 10.0) and
# --threshold fails a unit over the number given: 49 fails 5.0 and more.
# The printed level is checked as well, so that a rating that did not
# happen cannot pass.
for unit in qv-smart-collector.service qv-smart-metrics.service; do
    status=0
    rating=$(cd "$root$unitdir" && systemd-analyze security --offline=true \
        --root="$root" --threshold=49 --no-pager "$unit" 2>&1) || status=$?
    level=$(printf '%s\n' "$rating" |
        sed -n 's/^.*Overall exposure level for [^:]*: \([0-9][0-9.]*\) .*$/\1/p')
    if [ "$status" -ne 0 ] || [ -z "$level" ] ||
        awk -v level="$level" 'BEGIN { exit !(level >= 5.0) }'; then
        echo "$rating" >&2
        echo "$unit: exposure ${level:-not rated}, must stay below 5.0" >&2
        exit 1
    fi
    echo "$unit: exposure $level"
done
echo "installed and verified under $root"
