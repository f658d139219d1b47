#!/usr/bin/env bash
# Start-up time and idle memory of the daemon, measured in fresh device roots.
#   bench/startup.sh [RUNS]
# First start: `scripts/run --reset` on a build that is up to date, from the
# command to the first HTTPS answer (provisioning of a new device root with
# its certificate pair, then the daemon's start).  Restarts: from exec to the
# HTTPS port accepting connections.  Memory: VmRSS of the idle daemon after 1 s.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-5}
scripts/deps
scripts/build build "" g++ >/dev/null
root=$(mktemp -d /tmp/whttpd-bench-XXXXXX)
pid=
trap '[ -n "$pid" ] && kill -TERM $pid 2>/dev/null && wait $pid; rm -rf "$root"' EXIT
export WHTTPD_ROOT=$root
port=$(( 20000 + $$ % 10000 ))
export WHTTPD_DISCOVERY_PORT=$(( port + 1 ))
ms() { echo $(( ($2 - $1) / 1000000 )); }
for i in $(seq "$runs"); do
    t0=$(date +%s%N)
    WHTTPD_DEVROOT=$root WHTTPD_PORT=$port scripts/run --reset >/dev/null 2>&1 &
    pid=$!
    until curl -ksS -o /dev/null https://127.0.0.1:$port/api/v1/MethodList 2>/dev/null; do
        kill -0 $pid 2>/dev/null || { echo "scripts/run ended without serving" >&2; exit 1; }
        sleep 0.01
    done
    t1=$(date +%s%N)
    echo "first start $i: first HTTPS answer $(ms "$t0" "$t1") ms after scripts/run --reset"
    kill -TERM $pid; wait $pid || true
    pid=
done
for i in $(seq "$runs"); do
    t0=$(date +%s%N)
    build/whttpd_rest -s $port >/dev/null 2>&1 &
    pid=$!
    until (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; do
        kill -0 $pid 2>/dev/null || { echo "the daemon ended without serving" >&2; exit 1; }
        sleep 0.002
    done
    t1=$(date +%s%N)
    sleep 1
    rss=$(awk '/VmRSS/ {print $2}' /proc/$pid/status)
    threads=$(awk '/Threads/ {print $2}' /proc/$pid/status)
    echo "restart $i: start-up $(ms "$t0" "$t1") ms, idle RSS ${rss} kB, ${threads} threads"
    kill -TERM $pid; wait $pid || true
    pid=
done
