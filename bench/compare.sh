#!/usr/bin/env bash
# The daemon beside nginx in one run on this machine: GET of one object
# (Device.DeviceInfo.) from the daemon against nginx serving the same JSON as
# a static file with the same certificate, both over HTTPS with keep-alive
# connections driven by wrk; the server CPU time per new TLS connection
# (Connection: close) of both; the console's largest file from both; then
# the whole Device. subtree from the
# daemon, its memory (resident, and anonymous: what no other process can
# share) idle and after the load, and its start-up to the first HTTPS answer.
#   bench/compare.sh [CONNECTIONS [SECONDS]]     (default 32 connections, 10 s)
# Installs wrk and nginx from Debian's packages when they are missing, and
# builds build/ (g++, RelWithDebInfo).
set -euo pipefail
cd "$(dirname "$0")/.."
conns=${1:-32}
secs=${2:-10}

need=()
command -v wrk >/dev/null || need+=(wrk)
command -v nginx >/dev/null || [ -x /usr/sbin/nginx ] || need+=(nginx-light)
if [ ${#need[@]} -gt 0 ]; then
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends \
        "${need[@]}" >/dev/null
fi
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
scripts/deps
scripts/build build "" g++ >/dev/null

. bench/lib.sh
idle_rss=$(awk '/VmRSS/ {print $2}' /proc/$pid/status)
anon() { awk '/^Anonymous:/ {print $2}' /proc/$1/smaps_rollup; }
idle_anon=$(anon $pid)
api=https://127.0.0.1:$port/api/v1
object=TR181/Value/Device.DeviceInfo.

# One session for every connection of the load.
login=$(curl -sk -D - -o /dev/null -d '{"username":"admin","password":"1234abcd"}' "$api/UserLogin")
sid=$(printf '%s' "$login" | sed -n 's/^Set-Cookie: Session=\([^;]*\);.*/\1/p' | tr -d '\r')
[ -n "$sid" ] || { echo "login failed" >&2; exit 1; }
cookie="Cookie: Session=$sid"

# nginx: the daemon's answer as a static file, the daemon's certificate and
# protocol (TLS 1.3; Debian's nginx offers only 1.2 unless told), as many
# workers as cores, keep-alive without a request limit.
www=$root/www
mkdir -p "$www"
curl -sk -H "$cookie" "$api/$object" > "$www/object.json"
nport=$((port + 1))
cat > "$root/nginx.conf" <<CONF
worker_processes auto;
$( [ "$(id -u)" -eq 0 ] && echo "user root;" )
pid $root/nginx.pid;
error_log $root/nginx.err;
events { worker_connections 1024; }
http {
    access_log off;
    keepalive_requests 100000000;
    keepalive_timeout 60s;
    server {
        listen 127.0.0.1:$nport ssl;
        ssl_protocols TLSv1.2 TLSv1.3;
        ssl_certificate $root/data/CA/newreq.crt;
        ssl_certificate_key $root/data/CA/newreq.key;
        root $www;
        default_type application/json;
        types { text/javascript js; text/css css; text/html html; image/svg+xml svg; }
    }
}
CONF
"$nginx_bin" -c "$root/nginx.conf" -p "$root" -g 'daemon off;' &
npid=$!
trap '[ -n "$npid" ] && kill $npid 2>/dev/null; [ -n "$pid" ] && kill -TERM $pid 2>/dev/null && wait $pid; rm -rf "$root"' EXIT
until curl -sk -o /dev/null "https://127.0.0.1:$nport/object.json"; do sleep 0.05; done

# Requests per second, p50 and p99 (ms) of one wrk run.
run() {
    local url=$1 c=$2 out
    out=$(wrk -t"$(( c < 2 ? 1 : 2 ))" -c"$c" -d"${secs}s" --latency -H "$cookie" "$url")
    if printf '%s' "$out" | grep -q 'Non-2xx\|Socket errors'; then
        printf '%s\n' "$out" | grep 'Non-2xx\|Socket errors' >&2
    fi
    local rps p50 p99
    rps=$(printf '%s' "$out" | awk '/Requests\/sec/ {print $2}')
    p50=$(printf '%s' "$out" | awk '$1 == "50%" {print $2}')
    p99=$(printf '%s' "$out" | awk '$1 == "99%" {print $2}')
    echo "$rps $(ms "$p50") $(ms "$p99")"
}
# wrk prints latencies as 812.00us, 1.20ms or 1.05s.
ms() {
    awk -v v="$1" 'BEGIN { n = v + 0; if (v ~ /us$/) n /= 1000; else if (v ~ /[^m]s$/) n *= 1000;
                           printf "%.2f", n }'
}
peak() { awk '/VmHWM/ {print $2}' /proc/$pid/status; }
# CPU time (ms) of processes, user and system.
cpu() {
    local total=0 p
    for p in "$@"; do
        total=$(( total + $(awk '{print $14 + $15}' /proc/$p/stat) ))
    done
    echo $(( total * 1000 / $(getconf CLK_TCK) ))
}
# Server CPU per new TLS connection: wrk with Connection: close opens one
# connection per request; the server's CPU time over the run divided by the
# requests done.
perconn() {
    local url=$1 c0 c1 out n
    shift
    c0=$(cpu "$@")
    out=$(wrk -t2 -c8 -d"${secs}s" -H "$cookie" -H "Connection: close" "$url")
    c1=$(cpu "$@")
    n=$(printf '%s' "$out" | awk '/requests in/ {print $1}')
    awk -v c=$((c1 - c0)) -v n="$n" 'BEGIN { printf "%.3f", n ? c / n : 0 }'
}

# The two servers take turns, twice, so that a change in the machine's load
# falls on both: req/s and p50 are the means of the two turns, p99 the worse.
both() {
    awk -v a="$1" -v b="$2" -v c="$3" -v d="$4" -v e="$5" -v f="$6" \
        'BEGIN { printf "%.0f %.2f %.2f\n", (a + d) / 2, (b + e) / 2, (c > f ? c : f) }'
}
full=$secs
secs=$(( full / 2 > 0 ? full / 2 : 1 ))
read -r d1 < <(run "$api/$object" "$conns")
read -r n1 < <(run "https://127.0.0.1:$nport/object.json" "$conns")
read -r d2 < <(run "$api/$object" "$conns")
read -r n2 < <(run "https://127.0.0.1:$nport/object.json" "$conns")
read -r d_rps d_p50 d_p99 < <(both $d1 $d2)
read -r n_rps n_p50 n_p99 < <(both $n1 $n2)
# The console's largest file, from the daemon and from nginx (the same file
# at the same path).
asset=$(cd console && find . -type f -printf '%s %P\n' | sort -n | tail -1 | cut -d' ' -f2)
mkdir -p "$www/ui/$(dirname "$asset")" && cp "console/$asset" "$www/ui/$asset"
read -r s1 < <(run "https://127.0.0.1:$port/ui/$asset" "$conns")
read -r m1 < <(run "https://127.0.0.1:$nport/ui/$asset" "$conns")
read -r s2 < <(run "https://127.0.0.1:$port/ui/$asset" "$conns")
read -r m2 < <(run "https://127.0.0.1:$nport/ui/$asset" "$conns")
read -r s_rps s_p50 s_p99 < <(both $s1 $s2)
read -r m_rps m_p50 m_p99 < <(both $m1 $m2)
secs=$full
nworkers=$(ps --ppid $npid -o pid= | tr '\n' ' ')
d_conn=$(perconn "$api/$object" $pid)
n_conn=$(perconn "https://127.0.0.1:$nport/object.json" $npid $nworkers)
read -r t1_rps t1_p50 t1_p99 < <(run "$api/TR181/Value/Device.?first_level_only=false" 1)
read -r t_rps t_p50 t_p99 < <(run "$api/TR181/Value/Device.?first_level_only=false" "$conns")

echo "GET $object ($(wc -c < "$www/object.json") bytes), $conns keep-alive HTTPS connections, ${secs} s each (two turns)"
printf '  %-34s %10s %9s %9s\n' "" "req/s" "p50 ms" "p99 ms"
printf '  %-34s %10s %9s %9s\n' "whttpd_rest" "$d_rps" "$d_p50" "$d_p99"
printf '  %-34s %10s %9s %9s\n' "nginx (static file)" "$n_rps" "$n_p50" "$n_p99"
printf '  %-34s %10s\n' "ratio whttpd/nginx" "$(awk -v a="$d_rps" -v b="$n_rps" 'BEGIN {printf "%.3f", a / b}')"
echo "GET /ui/$asset (the console's largest file, $(wc -c < "console/$asset") bytes), the same"
printf '  %-34s %10s %9s %9s\n' "whttpd_rest" "$s_rps" "$s_p50" "$s_p99"
printf '  %-34s %10s %9s %9s\n' "nginx (static file)" "$m_rps" "$m_p50" "$m_p99"
printf '  %-34s %10s\n' "ratio whttpd/nginx" "$(awk -v a="$s_rps" -v b="$m_rps" 'BEGIN {printf "%.3f", a / b}')"
printf '  %-34s %10s %9s %9s\n' "whttpd_rest Device. tree, 1 conn" "$t1_rps" "$t1_p50" "$t1_p99"
printf '  %-34s %10s %9s %9s\n' "whttpd_rest Device. tree, $conns conn" "$t_rps" "$t_p50" "$t_p99"
printf '  %-34s %10s ms %s\n' "server CPU per TLS connection" "$d_conn" "(whttpd_rest)"
printf '  %-34s %10s ms %s\n' "" "$n_conn" "(nginx)"
sleep 1
echo "  whttpd_rest RSS: idle ${idle_rss} kB, peak $(peak) kB; anonymous: idle ${idle_anon} kB, after the load $(anon $pid) kB; threads after the load $(ls /proc/$pid/task | wc -l)"
# Start-up with the certificate in place: exec to the first HTTPS answer.
kill -TERM $pid && wait $pid || true
t0=$(date +%s%N)
WHTTPD_SECOND_MS=10 build/whttpd_rest -s $port >/dev/null 2>&1 &
pid=$!
until curl -ksS -o /dev/null "$api/MethodList" 2>/dev/null; do sleep 0.002; done
echo "  whttpd_rest start-up to the first HTTPS answer: $(( ($(date +%s%N) - t0) / 1000000 )) ms"
