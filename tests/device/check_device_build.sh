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
export WHTTPD_ROOT=$tmp/root WHTTPD_SECOND_MS=10
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
export WHTTPD_DISCOVERY_PORT=$(python3 -c 'import socket; s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
"$sim/wcfgctl" init >/dev/null
build-device/whttpd_rest -s "$port" >"$tmp/out" 2>&1 &
pid=$!
cacert=$WHTTPD_ROOT/data/CA/newreq.crt
for _ in $(seq 300); do
    kill -0 "$pid" 2>/dev/null || { tail -5 "$tmp/out" >&2; fail "the daemon exited"; }
    curl -sS --cacert "$cacert" -o /dev/null "https://localhost:$port/api/v1/MethodList" \
        2>/dev/null && break
    sleep 0.1
done
curl -sS --cacert "$cacert" -c "$tmp/jar" -d '{"username":"admin","password":"1234abcd"}' \
    "https://localhost:$port/api/v1/UserLogin" | grep -q '"sessionkey"' || fail "login failed"
curl -sS --cacert "$cacert" -b "$tmp/jar" \
    "https://localhost:$port/api/v1/TR181/Value/Device.DeviceInfo." | grep -q '"ModelName"' ||
    fail "read failed"
kill -TERM "$pid"
wait "$pid" || fail "the daemon did not stop cleanly"
pid=
echo "device build: whttpd_rest without the simulator ($(stat -c %s build-device/whttpd_rest) bytes) has no stand-in and serves"
