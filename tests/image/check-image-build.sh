#!/usr/bin/env bash
# Builds the collector as a firmware image does (no tests, minsize, LTO, the
# AArch64 cross file, -Dplatform-stand-ins=disabled: every platform library
# found through pkg-config), installs it into a scratch root the way an image
# recipe does, and checks what landed there: an AArch64 collector of at most
# 160,000 bytes stripped that needs no shared sdbusplus, its units, and
# nothing of the test build. Prints the path of the installed collector on
# standard output.
#   check-image-build.sh SOURCE_DIR BUILD_DIR DESTDIR
#
# This machine has no image SDK, so the stand-ins play it: they are built
# for AArch64 in BUILD_DIR-sdk and described by pkg-config files there, as
# an SDK's sysroot describes the firmware's own libraries.
set -euo pipefail
src=$1 build=$2 dest=$3
sdk=$build-sdk

common=(
    --cross-file "$src/build-aux/aarch64-linux-gnu.ini"
    --prefix=/usr -Dtests=disabled -Dbuildtype=minsize -Db_lto=true
)

# sdkPcFile NAME LIBDIR CFLAGS [REQUIRES]: a pkg-config file for one
# stand-in's static library.
sdkPcFile() {
    cat >"$sdk/pkgconfig/$1.pc" <<PC
Name: $1
Description: $1 for the image build's check
Version: 0
Requires: ${4:-}
Libs: -L$2 -l$1
Cflags: $3
PC
}

rm -rf "$sdk"
meson setup "$sdk" "$src" "${common[@]}" -Dplatform-stand-ins=enabled >&2
ninja -C "$sdk" platform/dlog/libdlog.a platform/utl/libutl.a \
    platform/smartdata/libsmartdata.a platform/sdbusplus/libsdbusplus.a >&2
mkdir -p "$sdk/pkgconfig"
sdkPcFile dlog "$sdk/platform/dlog" "-I$src/platform/dlog"
sdkPcFile utl "$sdk/platform/utl" "-I$src/platform/utl"
sdkPcFile smartdata "$sdk/platform/smartdata" "-I$src/platform/smartdata"
sdkPcFile sdbusplus "$sdk/platform/sdbusplus" \
    "-I$src/platform/sdbusplus/include" libsystemd

options=(
    "${common[@]}" -Dplatform-stand-ins=disabled
    "-Dpkg_config_path=$sdk/pkgconfig"
    # The controller's kernel uses 4 KiB pages; the toolchain's default
    # 64 KiB segment alignment would pad the file by up to 64 KiB of zeros.
    "-Dcpp_link_args=-Wl,-z,max-page-size=4096"
)
# Always from scratch: a reconfigure does not apply changed link options.
rm -rf "$build"
meson setup "$build" "$src" "${options[@]}" >&2
ninja -C "$build" >&2
rm -rf "$dest"
meson install -C "$build" --destdir "$dest" --quiet >&2

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
size=$(stat -c %s "$stripped")
echo "check-image-build: stripped AArch64 collector: $size bytes (at most 160000)" >&2
[ "$size" -le 160000 ] || fail "the stripped collector is $size bytes, over 160000"
echo "$collector"
