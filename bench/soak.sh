#!/usr/bin/env bash
# A soak run: the ASan + UBSan build of the daemon in a fresh device root
# under a bounded mixed load (bench/soak_load.cpp: logins, reads, tree reads,
# writes, batches, adds and deletes, malformed requests, logouts) for a given
# time.  Reports the load's errors, the daemon's resident memory after a
# warm-up and at the end, its thread count (at most, sampled each second)
# and any sanitizer report in its output, with the memory sampled ten times
# along the way.  SOAK_BUILD=build runs the plain g++ build instead (ASan's
# allocator keeps memory it has freed: the plain build shows the daemon's own
# memory curve).
# With --streams the load is event streams dropped every way beside requests
# on fresh connections (tests/e2e/stream_chaos.cpp: CLIENTS stream threads,
# 2 readers, one writer), and the run fails on any handshake or answer that
# a dropped stream spoilt.
#   bench/soak.sh [--streams] [SECONDS [CLIENTS]]     (default 60 s, 32 clients; 8 with --streams)
set -euo pipefail
cd "$(dirname "$0")/.."
mode=requests
if [ "${1:-}" = --streams ]; then
    mode=streams
    shift
fi
secs=${1:-60}
clients=${2:-$([ $mode = streams ] && echo 8 || echo 32)}
scripts/deps
bin=${SOAK_BUILD:-build-asan}
if [ "$bin" = build-asan ]; then
    scripts/build build-asan address clang++ >/dev/null
else
    scripts/build "$bin" g++ >/dev/null
fi
cmake -S . -B "$bin" -DWHTTPD_BENCH=ON >/dev/null
ninja -C "$bin" soak_load stream_chaos >/dev/null

root=$(mktemp -d /tmp/whttpd-soak-XXXXXX)
pid=
trap '[ -n "$pid" ] && kill -TERM $pid 2>/dev/null && wait $pid; rm -rf "$root"' EXIT
export WHTTPD_ROOT=$root
# A small quarantine, and free pages handed back to the system each second:
# ASan's default 256 MB quarantine would fill slowly, and pages it keeps would
# hide the daemon's own memory curve.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:quarantine_size_mb=16:allocator_release_to_os_interval_ms=1000
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
port=$(( 20000 + $$ % 10000 ))
"$bin"/wcfgctl init >/dev/null
"$bin"/wcfgctl set Device.X_OLVEX_LoginCfg. '{"MaximumLoginAccountNumber":0}' >/dev/null
WHTTPD_SECOND_MS=10 "$bin"/whttpd_rest -s $port >"$root/out" 2>"$root/err" &
pid=$!
until (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; do sleep 0.1; done
rss() { awk '/VmRSS/ {print $2}' /proc/$pid/status; }
# What the daemon holds allocated, as ASan's allocator counts it (asked
# through gdb, when there is one): unlike RSS it leaves out the memory the
# allocator keeps for itself.
heap() {
    [ "$bin" = build-asan ] && command -v gdb >/dev/null || return 0
    gdb -p $pid -batch -nx -ex 'call (unsigned long)__sanitizer_get_current_allocated_bytes()' \
        2>/dev/null | awk '/^\$1 = / {printf ", heap in use %d kB", $3 / 1024}'
}
threads() { awk '/Threads/ {print $2}' /proc/$pid/status; }
echo "soak: $clients clients, $secs s, $bin"
echo "at rest: RSS $(rss) kB, threads $(threads)"
( peak=0; while kill -0 $pid 2>/dev/null; do
      t=$(threads 2>/dev/null || echo 0); [ "${t:-0}" -gt $peak ] && peak=$t && echo $peak > "$root/threads"
      sleep 1; done ) &
sampler=$!
warm=$(( secs / 10 > 5 ? secs / 10 : 5 ))
( sleep $warm; echo "$(rss) kB$(heap)" > "$root/rss_start"
  for i in $(seq 2 9); do
      sleep $warm; echo "$(( i * warm )) s: $(rss 2>/dev/null) kB$(heap)" >> "$root/rss_series"
  done ) &
series=$!
status=0
if [ $mode = streams ]; then
    "$bin"/tests/stream_chaos $port "$clients" 2 "$secs" 2>"$root/load.err" || status=$?
else
    "$bin"/bench/soak_load $port "$clients" "$secs" 2>"$root/load.err" || status=$?
fi
rss_end=$(rss)
kill $sampler 2>/dev/null || true
wait $sampler 2>/dev/null || true
head -20 "$root/load.err"
kill $series 2>/dev/null || true
echo "RSS after ${warm} s: $(cat "$root/rss_start"), at the end: $rss_end kB"
sed 's/^/  RSS at /' "$root/rss_series" 2>/dev/null || true
echo "threads at most: $(cat "$root/threads" 2>/dev/null || echo ?)"
kill -TERM $pid; wait $pid || status=1
pid=
if grep -E "ERROR: (AddressSanitizer|LeakSanitizer)|runtime error:" "$root/err"; then
    echo "sanitizer report in the daemon's output" >&2
    status=1
fi
exit $status
