#!/usr/bin/env bash
# How often an idle daemon wakes: the context switches of all its threads
# over SECONDS (default 30) with no client, from perf stat, and per thread
# from /proc (voluntary and involuntary switches).
#   bench/idle.sh [SECONDS] [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-30}
bin=${2:-build}
root=$(mktemp -d /tmp/whttpd-idle-XXXXXX)
pid=
trap '[ -n "$pid" ] && kill -TERM $pid 2>/dev/null && wait $pid; rm -rf "$root"' EXIT
export WHTTPD_ROOT=$root WHTTPD_DISCOVERY_PORT=$(( 30000 + $$ % 10000 ))
port=$(( 20000 + $$ % 10000 ))
"$bin"/wcfgctl init >/dev/null
"$bin"/whttpd_rest -s $port >/dev/null 2>&1 &
pid=$!
until (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; do sleep 0.05; done
sleep 2
switches() {
    for t in /proc/$pid/task/*; do
        printf '%s:%s %s\n' "${t##*/}" "$(cat "$t/comm")" \
            "$(awk '/ctxt_switches/ {s += $2} END {print s}' "$t/status")"
    done | sort
}
switches >"$root/before"
perf stat -e context-switches -p $pid -x, -o "$root/perf" -- sleep "$secs" >/dev/null 2>&1 || true
switches >"$root/after"
echo "idle daemon over $secs s: $(grep context-switches "$root/perf" | cut -d, -f1) context switches (perf stat -e context-switches)"
join "$root/before" "$root/after" 2>/dev/null |
    awk -v s="$secs" '{d = $3 - $2; if (d > 0) printf "  %-16s %6d switches, %.1f/s\n", $1, d, d / s}'
