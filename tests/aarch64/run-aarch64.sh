#!/usr/bin/env bash
# Builds the collector and its unit tests for AArch64 and runs them under
# qemu-user, then runs the host's end-to-end suite against the AArch64
# collector. Installs nothing; see README.md beside this script for the
# packages.
#   run-aarch64.sh [CROSS_BUILD_DIR]   (default: <repo>/build-aarch64)
# HOST_BUILD names the native build whose simulator and end-to-end programs
# serve (default: <repo>/build); it is configured if missing.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
cross=${1:-$repo/build-aarch64}
host=${HOST_BUILD:-$repo/build}
qemu=/usr/bin/qemu-aarch64

requireTools() {
    local missing=()
    command -v aarch64-linux-gnu-g++ >/dev/null || missing+=(g++-aarch64-linux-gnu)
    [ -x "$qemu" ] || missing+=(qemu-user)
    [ -f /usr/lib/aarch64-linux-gnu/pkgconfig/libsystemd.pc ] ||
        missing+=(libsystemd-dev:arm64)
    [ -f /usr/lib/aarch64-linux-gnu/pkgconfig/gtest.pc ] ||
        missing+=(libgtest-dev:arm64 libgmock-dev:arm64)
    [ -e /usr/lib/aarch64-linux-gnu/libstdc++.so.6 ] ||
        missing+=(libstdc++6:arm64)
    if [ ${#missing[@]} -gt 0 ]; then
        echo "run-aarch64.sh: missing packages: ${missing[*]}" >&2
        echo "  (dpkg --add-architecture arm64 && apt-get update first)" >&2
        exit 1
    fi
}

# configure DIR [meson options...]
configure() {
    local dir=$1
    shift
    if [ -f "$dir/build.ninja" ]; then
        meson setup --reconfigure "$dir" "$repo" "$@" >/dev/null
    else
        meson setup "$dir" "$repo" "$@" >/dev/null
    fi
}

requireTools
[ -f "$host/build.ninja" ] || configure "$host"
configure "$cross" --cross-file "$here/aarch64-linux-gnu.ini"
ninja -C "$host" tools/storage-sim/storage-sim
# Everything, so every source is known to build for the target and the
# install check has all it installs.
ninja -C "$cross"

status=0
# A guest program cannot exec another guest program by itself (no binfmt
# handler is assumed), so the native simulator serves and any collector run
# goes through qemu; dbus-daemon is the host's.
echo "run-aarch64.sh: unit tests under qemu-aarch64"
STORAGE_SIM="$host/tools/storage-sim/storage-sim" \
    QV_COLLECTOR_WRAPPER="$qemu" \
    meson test -C "$cross" --no-suite e2e --print-errorlogs \
    --num-processes "$(nproc)" --timeout-multiplier 3 || status=1

echo "run-aarch64.sh: end-to-end tests with the AArch64 collector"
QV_COLLECTOR="$cross/qvcollectors/qv-smart-collector" \
    QV_COLLECTOR_WRAPPER="$qemu" \
    meson test -C "$host" --suite e2e --print-errorlogs \
    --num-processes "$(nproc)" || status=1

exit $status
