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
. bench/lib.sh
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
