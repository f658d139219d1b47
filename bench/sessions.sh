#!/usr/bin/env bash
# Logins per second and memory held per session, against the daemon in a
# fresh device root (no session limit).
#   bench/sessions.sh [THREADS] [LOGINS_PER_THREAD]
# Needs build/ configured with -DWHTTPD_BENCH=ON (scripts/build does not set
# it): cmake -S . -B build -DWHTTPD_BENCH=ON && cmake --build build
set -euo pipefail
cd "$(dirname "$0")/.."
threads=${1:-4}
per=${2:-500}
root=$(mktemp -d /tmp/whttpd-bench-XXXXXX)
pid=
trap '[ -n "$pid" ] && kill -TERM $pid 2>/dev/null && wait $pid; rm -rf "$root"' EXIT
export WHTTPD_ROOT=$root
port=$(( 20000 + $$ % 10000 ))
build/wcfgctl init >/dev/null
build/wcfgctl set Device.X_OLVEX_LoginCfg. '{"MaximumLoginAccountNumber":0}' >/dev/null
WHTTPD_SECOND_MS=10 build/whttpd_rest -s $port >/dev/null 2>&1 &
pid=$!
until (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; do sleep 0.05; done
sleep 0.5
# Warm-up: one login per thread, so that the server's threads and TLS
# contexts exist before the baseline is read.
build/bench/login_bench $port "$threads" 1 >/dev/null
rss0=$(awk '/VmRSS/ {print $2}' /proc/$pid/status)
build/bench/login_bench $port "$threads" "$per"
sleep 0.5
rss1=$(awk '/VmRSS/ {print $2}' /proc/$pid/status)
n=$(( threads * per ))
echo "RSS before ${rss0} kB, after ${n} more sessions ${rss1} kB:" \
     "$(( (rss1 - rss0) * 1024 / n )) bytes per session"
