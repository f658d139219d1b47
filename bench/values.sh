#!/usr/bin/env bash
# Data-model requests per second, latency and the daemon's memory, against
# the daemon in a fresh device root, over HTTPS with keep-alive.
#   bench/values.sh [THREADS] [REQUESTS_PER_THREAD]
# Needs build/ configured with -DWHTTPD_BENCH=ON:
#   cmake -S . -B build -DWHTTPD_BENCH=ON && cmake --build build
set -euo pipefail
cd "$(dirname "$0")/.."
threads=${1:-4}
per=${2:-500}
. bench/lib.sh
echo "idle RSS $(awk '/VmRSS/ {print $2}' /proc/$pid/status) kB"
for mode in get-object get-tree put; do
    n=$per
    [ $mode = get-tree ] && n=$(( per / 10 > 0 ? per / 10 : 1 ))
    # Sample the resident memory while the load runs.
    ( peak=0; while kill -0 $pid 2>/dev/null; do
          r=$(awk '/VmRSS/ {print $2}' /proc/$pid/status 2>/dev/null || echo 0)
          [ "${r:-0}" -gt $peak ] && peak=$r && echo $peak > "$root/peak"
          sleep 0.05; done ) &
    sampler=$!
    build/bench/value_bench $port "$threads" "$n" $mode
    kill $sampler 2>/dev/null || true
    wait $sampler 2>/dev/null || true
    echo "           daemon RSS during the run: up to $(cat "$root/peak") kB"
done
