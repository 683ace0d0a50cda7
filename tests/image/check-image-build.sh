#!/usr/bin/env bash
# Builds the collector as a firmware image does (no tests, minsize, LTO, the
# AArch64 cross file), installs it into a scratch root the way an image
# recipe does, and checks what landed there: an AArch64 collector that needs
# no shared sdbusplus, its units, and nothing of the test build. Prints the
# path of the installed collector on standard output.
#   check-image-build.sh SOURCE_DIR BUILD_DIR DESTDIR
set -euo pipefail
src=$1 build=$2 dest=$3

options=(
    --native-file "$src/build-aux/debian-python.ini"
    --cross-file "$src/build-aux/aarch64-linux-gnu.ini"
    --prefix=/usr -Dtests=disabled -Dbuildtype=minsize -Db_lto=true
    # The controller's kernel uses 4 KiB pages; the toolchain's default
    # 64 KiB segment alignment would pad the file by up to 64 KiB of zeros.
    -Dcpp_link_args=-Wl,-z,max-page-size=4096
)
# Always from scratch: a reconfigure does not apply changed link options.
rm -rf "$build"
meson setup "$build" "$src" "${options[@]}" >&2
ninja -C "$build" >&2
rm -rf "$dest"
# The sdbusplus subproject would install its static library and headers.
meson install -C "$build" --destdir "$dest" --skip-subprojects --quiet >&2

fail() {
    echo "check-image-build: $*" >&2
    exit 1
}

# The units go where the target's systemd.pc says (/lib or /usr/lib).
installed=$(cd "$dest" && find . -type f | sed 's|^\./\(usr/\)\?lib/systemd/system/|UNITDIR/|' | sort)
expected=$(printf '%s\n' ./usr/bin/qv-smart-collector ./usr/bin/qv-smart-report \
    UNITDIR/qv-smart-collector.service UNITDIR/qv-smart-collector.timer \
    UNITDIR/qv-smart-metrics.service)
[ "$installed" = "$expected" ] ||
    fail "installed files differ:"$'\n'"$(diff <(echo "$expected") <(echo "$installed"))"

collector="$dest/usr/bin/qv-smart-collector"
readelf -h "$collector" | grep -q 'Machine: *AArch64' ||
    fail "the collector is not an AArch64 program"
needed=$(readelf -d "$collector" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
if grep -q sdbusplus <<<"$needed"; then
    fail "the collector needs a shared sdbusplus: $needed"
fi
grep -qx 'libsystemd.so.0' <<<"$needed" || fail "no libsystemd in: $needed"

stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
aarch64-linux-gnu-strip -o "$stripped" "$collector"
echo "check-image-build: stripped AArch64 collector: $(stat -c %s "$stripped") bytes" >&2
echo "$collector"
