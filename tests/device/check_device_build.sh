#!/usr/bin/env bash
# The daemon for a device (WHTTPD_SIMULATOR=OFF): built in build-device/ with
# the embedded device and no stand-in; no symbol of a stand-in in it (while
# the virtual router's daemon in build/ has them, so that the check can
# fail); and it serves a login and a read from a device root that the
# virtual router's wcfgctl provisioned.
#   tests/device/check_device_build.sh [SIMULATOR_BUILD_DIR]   (default build)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cd "$here/../.."
sim=${1:-build}
fail() { echo "device build: $*" >&2; exit 1; }
WHTTPD_CMAKE_ARGS="-DWHTTPD_SIMULATOR=OFF" scripts/build build-device "" g++ whttpd_rest >/dev/null
tmp=$(mktemp -d /tmp/whttpd-device-XXXXXX)
pid=
trap '[ -n "$pid" ] && kill -KILL $pid 2>/dev/null; rm -rf "$tmp"' EXIT
# Symbols of the stand-ins' namespaces (the stand-in services, the cloud
# stand-in, the root's provisioning).
standins='(standin|fwcloud|sigv4|provision)::'
nm -C "$sim/whttpd_rest" >"$tmp/sim.nm"
nm -C build-device/whttpd_rest >"$tmp/device.nm"
grep -qE "$standins" "$tmp/sim.nm" ||
    fail "the check finds no stand-in in the virtual router's daemon either: it proves nothing"
if grep -E "$standins" "$tmp/device.nm" >"$tmp/found"; then
    head -5 "$tmp/found" >&2
    fail "stand-in symbols in the device's daemon"
fi
. "$here/../lib/daemon.sh"
export WHTTPD_ROOT=$tmp/root WHTTPD_SECOND_MS=10 WHTTPD_DISCOVERY_PORT=$(free_port)
port=$(free_port)
"$sim/wcfgctl" init >/dev/null
build-device/whttpd_rest -s "$port" >"$tmp/daemon.out" 2>&1 &
pid=$!
wait_served "$port" "$WHTTPD_ROOT"
login_and_read "$port" "$WHTTPD_ROOT"
stop_daemon
echo "device build: whttpd_rest without the simulator ($(stat -c %s build-device/whttpd_rest) bytes) has no stand-in and serves"
