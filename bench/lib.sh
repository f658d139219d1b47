# Shared by the load benchmarks: a fresh device root without a session limit
# and the daemon started in it (BENCH_LIMITS: more of WHTTPD_HTTP_LIMITS;
# BENCH_SECOND_MS: the platform second, 10 ms unless given).  Sets root, port and pid; the EXIT trap stops
# the daemon and removes the root.
root=$(mktemp -d /tmp/whttpd-bench-XXXXXX)
pid=
trap '[ -n "$pid" ] && kill -TERM $pid 2>/dev/null && wait $pid; rm -rf "$root"' EXIT
export WHTTPD_ROOT=$root
port=$(( 20000 + $$ % 10000 ))
build/wcfgctl init >/dev/null
build/wcfgctl set Device.X_OLVEX_LoginCfg. '{"MaximumLoginAccountNumber":0}' >/dev/null
# The load comes from one address with more connections than a LAN client
# opens (the default ceiling per address is 16).
# The allocator setting of the service scripts, unless the caller gives another.
export GLIBC_TUNABLES=${GLIBC_TUNABLES-glibc.malloc.tcache_count=2}
WHTTPD_HTTP_LIMITS=per_address=128${BENCH_LIMITS:+,$BENCH_LIMITS} WHTTPD_SECOND_MS=${BENCH_SECOND_MS:-10} build/whttpd_rest -s $port >/dev/null 2>&1 &
pid=$!
until (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; do sleep 0.05; done
sleep 0.5
