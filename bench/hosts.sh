#!/usr/bin/env bash
# GET of the Device.Hosts. subtree with 64 hosts in the host-probe database:
# requests per second, p50 and p99 over keep-alive HTTPS (wrk), and the
# daemon's resident memory.
#   bench/hosts.sh [SECONDS]      (default 10 s per run)
# Installs wrk and sqlite3 from Debian's packages when they are missing, and
# builds build/ (g++, RelWithDebInfo).
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-10}

need=()
command -v wrk >/dev/null || need+=(wrk)
command -v sqlite3 >/dev/null || need+=(sqlite3)
if [ ${#need[@]} -gt 0 ]; then
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends \
        "${need[@]}" >/dev/null
fi
scripts/deps
scripts/build build "" g++ >/dev/null

# 59 more end devices beside the default 5 hosts: 64 in the database, with
# leases; half of them on the gateway's 2.4 GHz Wi-Fi.
prepare() {
    local sql="BEGIN;" leases="" assoc="" up
    up=$(cut -d. -f1 /proc/uptime)
    for i in $(seq 10 68); do
        local mac ip
        mac=$(printf '02:BB:00:00:00:%02X' "$i")
        ip="192.168.1.$((100 + i))"
        sql+="INSERT INTO Device VALUES('EndDevice','dev$i','$ip','','$mac','','','','',"
        sql+="'Wi-Fi','02:10:18:3A:5C:00','1','1','1','1','-$((40 + i % 40))','144','','1','0',"
        sql+="'0','0','0','0','','','6','1','');"
        leases+="$((up - i)) 86400 ${mac,,} $ip dev$i *"$'\n'
        [ $((i % 2)) -eq 0 ] && assoc+="$mac  0000000100  -$((40 + i % 40)) "$'\n'
    done
    sqlite3 "$WHTTPD_ROOT/tmp/devscout.db" "$sql COMMIT;"
    printf '%s' "$leases" >> "$WHTTPD_ROOT/var/dnsmasq/dnsmasq.leases"
    printf '%s' "$assoc" >> "$WHTTPD_ROOT/tmp/assoc_list.24g"
}

# lib.sh prepares the root and starts the daemon; the database is filled
# before the first read of the hosts.
. bench/lib.sh
prepare
api=https://127.0.0.1:$port/api/v1
login=$(curl -sk -D - -o /dev/null -d '{"username":"admin","password":"1234abcd"}' "$api/UserLogin")
sid=$(printf '%s' "$login" | sed -n 's/^Set-Cookie: Session=\([^;]*\);.*/\1/p' | tr -d '\r')
cookie="Cookie: Session=$sid"
url="$api/TR181/Value/Device.Hosts.?first_level_only=false"
hosts=$(curl -sk -H "$cookie" "$url" | grep -o '"PhysAddress"' | wc -l)
idle_rss=$(awk '/VmRSS/ {print $2}' /proc/$pid/status)

run() {
    local c=$1 out
    out=$(wrk -t"$(( c < 2 ? 1 : 2 ))" -c"$c" -d"${secs}s" --latency -H "$cookie" "$url")
    printf '%s' "$out" | grep -q 'Non-2xx' && printf '%s\n' "$out" | grep 'Non-2xx' >&2
    printf '%s' "$out" | awk '/Requests\/sec/ {rps = $2} $1 == "50%" {p50 = $2} $1 == "99%" {p99 = $2}
                             END {printf "%s req/s, p50 %s, p99 %s\n", rps, p50, p99}'
}

echo "GET Device.Hosts. subtree: $hosts hosts in the answer, $(wc -c < <(curl -sk -H "$cookie" "$url")) bytes"
echo "  1 connection:  $(run 1)"
echo "  4 connections: $(run 4)"
echo "  daemon RSS: before $idle_rss kB, peak $(awk '/VmHWM/ {print $2}' /proc/$pid/status) kB"
