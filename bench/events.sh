#!/usr/bin/env bash
# Event streams under load: STREAMS streams (4 per session) on one object,
# writes of it through the API and through wcfgctl; for each write the delay
# from its answer to its event at every stream (p50, p99), then the daemon's
# CPU time and resident memory with the streams open and idle.
#   bench/events.sh [STREAMS [WRITES [IDLE_SECONDS]]]   (default 100, 200, 30)
# Builds build/ (g++, RelWithDebInfo).
set -euo pipefail
cd "$(dirname "$0")/.."
streams=${1:-100}
writes=${2:-200}
idle=${3:-30}
scripts/deps
scripts/build build "" g++ >/dev/null
# More streams than a router allows by default (64 in all, 4 per session).
BENCH_LIMITS="events_total=$((streams + 24)),events_per_session=16,events_per_address=$((streams + 24))"
# Real seconds: the device's own timers and services at their real pace, so
# that the idle figure is the streams' cost beside a device at rest.
BENCH_SECOND_MS=1000
. bench/lib.sh
echo "event streams: $streams on Device.WiFi.SSID.1., $writes writes through the API, $((writes / 2)) through wcfgctl"
echo "  daemon before the streams: RSS $(awk '/VmRSS/ {print $2}' /proc/$pid/status) kB"
/usr/bin/python3 bench/events_load.py "$port" "$pid" "$streams" "$writes" "$idle"
