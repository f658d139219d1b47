#!/usr/bin/env bash
# Start-up time and idle memory of the daemon, measured in a fresh device root.
#   bench/startup.sh [RUNS]     (needs build/ from scripts/build)
# Start-up time: from exec to the HTTPS port accepting connections, with the
# certificate already in place.  Memory: VmRSS of the idle daemon after 1 s.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-5}
root=$(mktemp -d /tmp/whttpd-bench-XXXXXX)
trap 'rm -rf "$root"' EXIT
export WHTTPD_ROOT=$root
port=19443
build/wcfgctl init >/dev/null
# First start generates the certificate (platform seconds shortened).
WHTTPD_SECOND_MS=10 build/whttpd_rest -s $port >/dev/null 2>&1 &
pid=$!
until (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; do sleep 0.05; done
kill -TERM $pid; wait $pid || true
for i in $(seq "$runs"); do
    t0=$(date +%s%N)
    build/whttpd_rest -s $port >/dev/null 2>&1 &
    pid=$!
    until (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; do sleep 0.002; done
    t1=$(date +%s%N)
    sleep 1
    rss=$(awk '/VmRSS/ {print $2}' /proc/$pid/status)
    threads=$(awk '/Threads/ {print $2}' /proc/$pid/status)
    echo "run $i: start-up $(( (t1 - t0) / 1000000 )) ms, idle RSS ${rss} kB, ${threads} threads"
    kill -TERM $pid; wait $pid || true
done
